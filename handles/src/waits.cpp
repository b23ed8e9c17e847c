#include "waits.h"

#include <new>
#include <optional>

#include "dispatcher.h"
#include "endpoint.h"
#include "strand.h"
#include "waiting_reply.h"

namespace zorvix::detail {
namespace {

constexpr std::chrono::seconds kSlow(10);  // beyond what a callable may take

long long Seconds(const Backlog& backlog) {
  return std::chrono::duration_cast<std::chrono::seconds>(backlog.age).count();
}

std::string Describe(const Running& running) {
  return std::string("kind: ") + running.kind + ", name: " + running.name +
         ", module: " + running.module + ThreadPart(running.thread);
}

std::string LastDrain(int drainer) {
  if (drainer == 0) return ", never drained";
  if (drainer == ThisThread()) return ", last drained by this thread";
  return ", last drained by thread: " + DescribeThread(drainer);
}

// What is known of the server that a call waits for.
struct Served {
  Served(const Record& record, const Strand* strand)
      : server(record, record.inside.Thread()), has_pending(record.Count().pending != 0) {
    if (strand == nullptr) return;
    place = strand->place;
    is_queued = strand->IsDrainedByTasks();
    drains = strand->LookAtDrains();
    running = strand->FindRunning();
  }

  const Running server;
  const bool has_pending;
  std::string place;
  bool is_queued = false;
  Strand::Drains drains;
  std::optional<Running> running;  // in the server's strand
};

std::optional<Served> FindServer(const Record* server) {
  Process& process = Process::Get();
  const Lock lock(process.mutex);
  for (const Record* const record : process.records) {
    if (record == server) return std::optional<Served>(std::in_place, *record, record->strand);
  }
  return std::nullopt;
}

// Says why a request is still pending, if that is known.
std::string DescribePending(const Served& served, Clock::time_point called_at) {
  if (served.running) {
    return ", pending while its thread is inside another callable, " + Describe(*served.running);
  }
  if (served.drains.latest_at > called_at) return ", pending";
  if (!served.is_queued) {
    return ", pending in an inbox that no thread drains, inbox: " + served.place +
           LastDrain(served.drains.drainer);
  }
  const auto running = RunningInTasks();
  if (!running.empty()) return ", pending while a task is inside " + Describe(running.front());
  if (HasBegunTaskAfter(called_at)) return ", pending";
  return ", pending in the queue, which no thread drains";
}

std::string DescribeServer(const WaitingReply& call, Clock::time_point called_at) {
  const auto served = FindServer(call.server);
  if (!served) return ", the server has no handle any more";
  const std::string text = std::string(", kind: Server, module: ") + served->server.module;
  if (served->server.thread != 0) return text + ThreadPart(served->server.thread);
  if (!served->has_pending) return text + ", the server has taken the request";
  return text + DescribePending(*served, called_at);
}

}  // namespace

std::vector<Running> RunningInTasks() {
  std::vector<Running> running;
  Process& process = Process::Get();
  const Lock lock(process.mutex);
  for (const Record* const record : process.records) {
    const int thread = record->inside.Thread();
    const bool is_task = record->invoker == Record::Invoker::kTask;
    if (is_task && thread != 0) running.emplace_back(*record, thread);
  }
  return running;
}

std::string ThreadPart(int thread) noexcept {
  if (thread == 0) return {};
  try {
    return ", thread: " + DescribeThread(thread);
  } catch (const std::bad_alloc&) {
    return {};
  }
}

void LogWaitingDestructor(const Record& record, int thread, int seconds) noexcept {
  BRIDGE_LOG(bridge::kLogWarn,
             "a destructor waits for its callable to return, name: %s, kind: %s, module: %s%s, "
             "for %d s",
             record.name.c_str(), record.kind, record.module, ThreadPart(thread).c_str(), seconds);
}

void LogWaiting(const char* what, const Record& record, int seconds) noexcept {
  BRIDGE_LOG(bridge::kLogWarn, "%s, name: %s, module: %s, for %d s", what, record.name.c_str(),
             record.module, seconds);
}

void LogWaitingCall(const WaitingReply& call, int seconds, Clock::time_point start) noexcept {
  std::string server;
  try {
    server = DescribeServer(call, start);
  } catch (const std::bad_alloc&) {  // the line tells less
  }
  BRIDGE_LOG(bridge::kLogWarn, "a call waits for its answer, name: %s%s, for %d s",
             call.service.c_str(), server.c_str(), seconds);
}

void LogUndrainedInbox(const std::string& inbox, const Record& pushed, const Backlog& backlog) {
  BRIDGE_LOG(
      bridge::kLogWarn,
      "no thread drains an inbox, inbox: %s, kind: %s, name: %s, module: %s, pending: %zu%s, "
      "for %lld s",
      inbox.c_str(), pushed.kind, pushed.name.c_str(), pushed.module, backlog.pending,
      LastDrain(backlog.drainer).c_str(), Seconds(backlog));
}

void LogUndrainedQueue(const Record& pushed, const Backlog& backlog) {
  BRIDGE_LOG(bridge::kLogWarn,
             "no thread drains the queue, kind: %s, name: %s, module: %s, pending: %zu, for %lld s",
             pushed.kind, pushed.name.c_str(), pushed.module, backlog.pending, Seconds(backlog));
}

bool LogRunning(const Running& running, const Backlog& backlog) {
  if (backlog.age < kSlow) return false;
  BRIDGE_LOG(bridge::kLogWarn,
             "messages are pending while a callable runs, %s, pending: %zu, for %lld s",
             Describe(running).c_str(), backlog.pending, Seconds(backlog));
  return true;
}

bool LogRunningInTask(const Running& running, const Record& pushed, const Backlog& backlog) {
  if (backlog.age < kSlow) return false;
  BRIDGE_LOG(bridge::kLogWarn,
             "queued messages are pending while a task is inside a callable, %s, pending: %zu for "
             "kind: %s, name: %s, module: %s, for %lld s",
             Describe(running).c_str(), backlog.pending, pushed.kind, pushed.name.c_str(),
             pushed.module, Seconds(backlog));
  return true;
}

}  // namespace zorvix::detail
