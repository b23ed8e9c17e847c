#include <zorvix/inspect.h>

#include <algorithm>
#include <array>
#include <limits>
#include <set>
#include <tuple>
#include <utility>

#include "dispatcher.h"
#include "endpoint.h"
#include "findings.h"
#include "records.h"
#include "threads.h"
#include "type_names.h"
#include "waiting_reply.h"

namespace zorvix {
namespace {

void UpdateSmallestSlowLimit(const std::multiset<std::int64_t>& limits) {
  detail::smallest_slow_limit = limits.empty() ? 0 : *limits.begin();
}

// Under the mutex of the list, so that the handle and its module exist.
void DescribeCounts(HandleInfo& info, const detail::Record& record) {
  const detail::Counts counts = record.Count();
  info.sent = record.sent.Get() + counts.sent;
  info.received = record.received.Get() + counts.received;
  info.rejected = record.rejected.Get() + counts.rejected;
  info.invocations = record.invocations.Get();
  info.pending = counts.pending;
  info.depth = counts.depth;
  info.dropped = counts.dropped;
  info.longest = std::chrono::nanoseconds(record.longest);
}

// Keeps the longest of those in progress.
void DescribeInvocation(detail::Row& row, detail::Invocation& invocation,
                        detail::Clock::time_point now) {
  const std::uint64_t state = invocation.state;
  const int thread = detail::Invocation::Thread(state);
  if (thread == 0) return;
  if (invocation.seen_state != state) {
    invocation.seen_state = state;
    invocation.seen_at = now;
  }
  const bool is_exact = invocation.began_state == state;
  std::chrono::nanoseconds since = invocation.seen_at.time_since_epoch();
  if (is_exact) since = std::chrono::nanoseconds(invocation.began);
  // It may have begun after `now`.
  const auto time = std::max<std::chrono::nanoseconds>(now.time_since_epoch() - since, {});
  if (row.info.running_for && *row.info.running_for >= time) return;
  row.info.thread = thread;
  row.info.running_for = time;
  row.is_running_time_exact = is_exact;
}

void DescribePlace(detail::Row& row, const detail::Record& record) {
  if (record.strand == nullptr) {
    const bool is_task = record.invoker == detail::Record::Invoker::kTask;
    if (record.has_callable) row.info.place = is_task ? "queued" : "direct";
    return;
  }
  row.strand = record.strand;
  row.is_queued = record.strand->IsDrainedByTasks();
  row.drains = record.strand->LookAtDrains();
  if (record.has_callable) row.info.place = record.strand->place;
}

detail::Row Describe(detail::Record& record, detail::Clock::time_point now) {
  detail::Row row;
  row.record = &record;
  row.adopter = record.adopter;
  row.counted_kind = record.counted_kind;
  row.info.kind = record.kind;
  row.info.name = record.name;
  row.info.module = record.module;
  if (record.message_type != nullptr) row.info.type = detail::NameOfType(*record.message_type);
  if (record.response_type != nullptr)
    row.info.response = detail::NameOfType(*record.response_type);
  if (record.participant != nullptr) {
    const detail::Control& control = record.participant->control;
    row.name = control.get();
    row.bridge_type = control->bridge_type;
    row.participants = control.use_count();
    row.own_participants = record.own_participants;
  }
  if (record.server != nullptr) row.info.is_active = record.server->IsActive();
  DescribeCounts(row.info, record);
  for (auto& invocation : record.inside.invocations()) DescribeInvocation(row, invocation, now);
  DescribePlace(row, record);
  return row;
}

// Counts a wait for the client and for the server.
void CountWait(const detail::WaitingReply& wait, std::vector<detail::Row>& rows,
               detail::Clock::time_point now) {
  for (auto& row : rows) {
    if (row.record != wait.client && row.record != wait.server) continue;
    ++row.info.waiting;
    const auto time = std::max<std::chrono::nanoseconds>(now - wait.since(), {});
    if (row.info.waiting_for && *row.info.waiting_for >= time) continue;
    row.info.waiting_for = time;
    row.waiting_thread = wait.thread();
  }
}

void DescribeDrained(HandleInfo& info, const detail::Strand::Drains& drains,
                     detail::Clock::time_point now) {
  info.thread = drains.drainer;
  if (drains.drainer == 0) return;
  info.drained_ago = std::chrono::nanoseconds::zero();
  if (drains.is_in_progress) return;
  info.drained_ago = std::max<detail::Clock::duration>(now - drains.latest_at, {});
}

// Of an inbox.
void DescribeInbox(detail::Row& inbox, const std::vector<detail::Row>& rows,
                   detail::Clock::time_point now) {
  inbox.info.place.clear();
  inbox.info.pending = inbox.drains.pending;
  for (const auto& row : rows) {
    if (row.strand == inbox.strand && &row != &inbox) ++inbox.info.counterparts;
  }
  DescribeDrained(inbox.info, inbox.drains, now);
}

// Returns whether the row is of a handle with queued delivery, and adds it to the queue's.
bool AddToQueue(detail::Row& row, detail::Row& queue) {
  if (!row.is_queued) return false;
  row.drains.drainer = queue.drains.drainer;
  row.drains.latest_at = std::max(row.drains.latest_at, queue.drains.latest_at);
  if (row.info.pending == 0) return true;
  queue.info.pending += row.info.pending;
  queue.drains.pending_since = std::min(queue.drains.pending_since, row.drains.pending_since);
  return true;
}

void DescribeDrains(std::vector<detail::Row>& rows, detail::Clock::time_point now) {
  detail::Row queue;
  queue.info.kind = "Queue";
  queue.info.name = "queued";
  queue.is_queued = true;
  queue.info.counterparts = detail::CountWorkers();
  const detail::QueueDrains drains = detail::LookAtQueueDrains();
  queue.drains.drainer = drains.drainer;
  queue.drains.latest_at = drains.latest_at;
  queue.drains.pending_since = detail::kNever;
  bool is_used = queue.info.counterparts != 0;
  for (auto& row : rows) {
    if (row.info.kind == "Inbox") DescribeInbox(row, rows, now);
    if (AddToQueue(row, queue)) is_used = true;
  }
  DescribeDrained(queue.info, queue.drains, now);
  if (is_used) rows.push_back(std::move(queue));
}

// Lets rows of other libraries show the handles that they have adopted.
void MergeAdopted(std::vector<detail::Row>& rows) {
  for (const detail::Row& adopted : rows) {
    if (adopted.adopter == nullptr) continue;
    const auto is_adopter = [&](const detail::Row& row) { return row.record == adopted.adopter; };
    const auto adopter = std::find_if(rows.begin(), rows.end(), is_adopter);
    if (adopter == rows.end()) continue;
    const HandleInfo own = std::exchange(adopter->info, adopted.info);
    HandleInfo& shown = adopter->info;
    shown.kind = own.kind;
    shown.name = own.name;
    shown.module = own.module;
    shown.pending = own.pending;
    shown.depth = own.depth;
    shown.dropped = own.dropped;
    shown.rejected += own.rejected;
    shown.findings.insert(shown.findings.end(), own.findings.begin(), own.findings.end());
  }
  const auto is_adopted = [](const detail::Row& row) { return row.adopter != nullptr; };
  rows.erase(std::remove_if(rows.begin(), rows.end(), is_adopted), rows.end());
}

std::string DepthText(std::size_t depth) {
  return depth == std::numeric_limits<std::size_t>::max() ? "all" : std::to_string(depth);
}

std::string Join(const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& finding : findings) {
    if (!text.empty()) text += "; ";
    text += finding.text;
  }
  return text;
}

}  // namespace

SlowLog::SlowLog(Timeout limit) : limit_(std::max<std::int64_t>(limit.time().count(), 1)) {
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
  const auto now = detail::Clock::now();
  std::vector<detail::Row> rows;
  {
    auto& process = detail::Process::Get();
    const detail::Lock lock(process.mutex);
    for (auto* record : process.records) {
      rows.push_back(Describe(*record, now));
      rows.back().position = rows.size();
    }
    for (const auto* wait : process.waits) CountWait(*wait, rows, now);
  }
  DescribeDrains(rows, now);
  for (auto& row : rows) {
    if (row.info.thread != 0) row.info.thread_name = detail::NameOfThread(row.info.thread);
  }
  detail::FindProblems(rows, now, detail::smallest_slow_limit);
  MergeAdopted(rows);
  std::sort(rows.begin(), rows.end(), [](const detail::Row& a, const detail::Row& b) {
    return std::tie(a.info.name, a.info.kind, a.info.module, a.position) <
           std::tie(b.info.name, b.info.kind, b.info.module, b.position);
  });
  std::vector<HandleInfo> handles;
  handles.reserve(rows.size());
  for (auto& row : rows) handles.push_back(std::move(row.info));
  return handles;
}

std::ostream& operator<<(std::ostream& out, const std::vector<HandleInfo>& handles) {
  using Line = std::array<std::string, 12>;
  std::vector<Line> lines{{"name", "kind", "module", "place", "peers", "sent", "received",
                           "pending", "depth", "dropped", "longest, ms", "what is wrong"}};
  for (const auto& handle : handles) {
    lines.push_back({handle.name, handle.kind, handle.module, handle.place,
                     std::to_string(handle.counterparts), std::to_string(handle.sent),
                     std::to_string(handle.received), std::to_string(handle.pending),
                     DepthText(handle.depth), std::to_string(handle.dropped),
                     std::to_string(handle.longest.count() / 1'000'000), Join(handle.findings)});
  }
  constexpr std::size_t kFirstNumber = 4;
  constexpr std::size_t kLast = std::tuple_size_v<Line> - 1;
  std::array<std::size_t, kLast> widths{};
  for (const Line& line : lines) {
    for (std::size_t column = 0; column < kLast; ++column) {
      widths[column] = std::max(widths[column], line[column].size());
    }
  }
  for (const Line& line : lines) {
    for (std::size_t column = 0; column < kLast; ++column) {
      const std::string spaces(widths[column] - line[column].size(), ' ');
      if (column != 0) out << "  ";
      out << (column < kFirstNumber ? line[column] + spaces : spaces + line[column]);
    }
    if (!line[kLast].empty()) out << "  " << line[kLast];
    out << '\n';
  }
  return out;
}

}  // namespace zorvix
