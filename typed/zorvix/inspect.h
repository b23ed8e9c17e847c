// Reports what the handles of the process do: which are registered, what is pending and dropped,
// and which callables are slow. Covers all modules, also those loaded with RTLD_LOCAL.
//
//   std::cerr << zorvix::Inspect();
//   const zorvix::SlowLog slow(std::chrono::milliseconds(16));
#ifndef ZORVIX_INSPECT_H_
#define ZORVIX_INSPECT_H_

#include <zorvix/typed.h>

#include <algorithm>
#include <iomanip>
#include <ostream>
#include <tuple>

namespace zorvix {

struct HandleInfo {
  ZORVIX_HIDDEN HandleInfo() = default;
  ZORVIX_HIDDEN HandleInfo(const HandleInfo&) = default;
  ZORVIX_HIDDEN HandleInfo(HandleInfo&&) = default;
  ZORVIX_HIDDEN HandleInfo& operator=(const HandleInfo&) = default;
  ZORVIX_HIDDEN HandleInfo& operator=(HandleInfo&&) = default;
  ZORVIX_HIDDEN ~HandleInfo() = default;
  std::string kind;    // "Publisher", "Subscriber", "Server", "Client", "Holder" or "Watcher"
  std::string name;    // of the topic, service or state
  std::string module;  // file name of the module that built it, such as "libhud.so"
  // Of a handle with an inbox or queued delivery, at the moment at which it was looked at:
  std::size_t pending = 0;  // messages, requests or answers
  std::size_t depth = 0;    // that of KeepLast; 0 without a queue; the largest number for KeepAll
  std::size_t dropped = 0;  // since the handle was built
  // While a SlowLog lived:
  std::uint64_t invocations = 0;
  std::chrono::nanoseconds longest{0};
};

// Returns the handles of the process, sorted by name, kind and module. Any thread may call it at
// any time, also inside a callable. Handles that are built or destroyed meanwhile may be missing.
ZORVIX_HIDDEN inline std::vector<HandleInfo> Inspect() {
  std::vector<HandleInfo> handles;
  detail::Process& process = detail::ThisProcess();
  {
    const std::lock_guard lock(process.mutex);
    for (auto* record = process.records; record != nullptr; record = record->next) {
      const detail::Counts counts = record->Count();
      HandleInfo handle;
      handle.kind = record->kind;
      handle.name = record->name;
      handle.module = record->module;
      handle.pending = counts.pending;
      handle.depth = counts.depth;
      handle.dropped = counts.dropped;
      handle.invocations = record->invocations;
      handle.longest = std::chrono::nanoseconds(record->longest);
      handles.push_back(std::move(handle));
    }
  }
  std::sort(handles.begin(), handles.end(), [](const HandleInfo& a, const HandleInfo& b) {
    return std::tie(a.name, a.kind, a.module) < std::tie(b.name, b.kind, b.module);
  });
  return handles;
}

// Prints a table with a line for each handle.
ZORVIX_HIDDEN inline std::ostream& operator<<(std::ostream& out,
                                              const std::vector<HandleInfo>& handles) {
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

// While an object exists, each invocation of a handle's callable or of a posted task that takes
// longer than the limit is logged as a WARN, with kind, name, module and milliseconds, and the
// invocations of each handle are counted; the counts are kept afterwards. If there are several
// objects, the smallest limit applies. Without one, no clock is read. Any thread may build it.
class SlowLog {
 public:
  [[nodiscard]] ZORVIX_HIDDEN explicit SlowLog(std::chrono::milliseconds limit)
      : limit_(std::make_shared<detail::SlowLimitOwner>(limit)) {}
  ZORVIX_HIDDEN ~SlowLog() = default;
  SlowLog(const SlowLog&) = delete;
  SlowLog& operator=(const SlowLog&) = delete;

 private:
  const std::shared_ptr<void> limit_;
};

}  // namespace zorvix

#endif  // ZORVIX_INSPECT_H_
