#include <zorvix/inspect.h>

#include <algorithm>
#include <iomanip>
#include <limits>
#include <tuple>
#include <utility>

#include "records.h"

namespace zorvix {
namespace {

void UpdateSmallestSlowLimit(const std::multiset<std::int64_t>& limits) {
  detail::smallest_slow_limit = limits.empty() ? 0 : *limits.begin();
}

HandleInfo Describe(const detail::Record& record) {
  const detail::Counts counts = record.Count();
  const detail::Record& invoked = record.adopted == nullptr ? record : *record.adopted;
  HandleInfo handle;
  handle.kind = record.kind;
  handle.name = record.name;
  handle.module = record.module;
  handle.pending = counts.pending;
  handle.depth = counts.depth;
  handle.dropped = counts.dropped;
  handle.invocations = invoked.invocations;
  handle.longest = std::chrono::nanoseconds(invoked.longest);
  return handle;
}

}  // namespace

SlowLog::SlowLog(std::chrono::milliseconds limit)
    : limit_(std::max<std::int64_t>(std::chrono::nanoseconds(limit).count(), 1)) {
  auto& process = detail::Process::Get();
  const detail::Lock lock(process.mutex);
  process.slow_limits.insert(limit_);
  UpdateSmallestSlowLimit(process.slow_limits);
}

SlowLog::~SlowLog() {
  auto& process = detail::Process::Get();
  const detail::Lock lock(process.mutex);
  process.slow_limits.erase(process.slow_limits.find(limit_));
  UpdateSmallestSlowLimit(process.slow_limits);
}

std::vector<HandleInfo> Inspect() {
  std::vector<HandleInfo> handles;
  {
    auto& process = detail::Process::Get();
    const detail::Lock lock(process.mutex);
    for (const auto* record : process.records) {
      if (record->adopter == nullptr) handles.push_back(Describe(*record));
    }
  }
  std::sort(handles.begin(), handles.end(), [](const HandleInfo& a, const HandleInfo& b) {
    return std::tie(a.name, a.kind, a.module) < std::tie(b.name, b.kind, b.module);
  });
  return handles;
}

std::ostream& operator<<(std::ostream& out, const std::vector<HandleInfo>& handles) {
  constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();
  std::size_t name_width = 4;
  std::size_t module_width = 6;
  for (const auto& handle : handles) {
    name_width = std::max(name_width, handle.name.size());
    module_width = std::max(module_width, handle.module.size());
  }
  const auto row = [&](const std::string& name, const std::string& kind, const std::string& module,
                       const auto&... numbers) {
    const auto text = [&](std::size_t width, const std::string& value) {
      out << value << std::string(width - std::min(width, value.size()) + 2, ' ');
    };
    text(name_width, name);
    text(10, kind);
    text(module_width, module);
    ((out << std::setw(12) << numbers), ...);
    out << '\n';
  };
  row("name", "kind", "module", "pending", "depth", "dropped", "invocations", "longest, ms");
  for (const auto& handle : handles) {
    const std::string depth = handle.depth == kAll ? "all" : std::to_string(handle.depth);
    row(handle.name, handle.kind, handle.module, handle.pending, depth, handle.dropped,
        handle.invocations, handle.longest.count() / 1'000'000);
  }
  return out;
}

}  // namespace zorvix
