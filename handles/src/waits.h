// What the log says of a thread that waits for a callable.
#ifndef ZORVIX_HANDLES_WAITS_H_
#define ZORVIX_HANDLES_WAITS_H_

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "records.h"
#include "sync.h"

namespace zorvix::detail {

class WaitingReply;

// Calls wait(until), which blocks until something has happened, or until that time, and returns
// whether it has happened. After 1, 10 and 100 seconds without it, calls
// log(seconds, start), under no lock. Ends at `end`.
template <typename Wait, typename Log>
void WaitAndLog(Clock::time_point end, const Wait& wait, const Log& log) {
  const auto start = CoarseNow();
  for (const int seconds : {1, 10, 100}) {
    const auto until = start + std::chrono::seconds(seconds);
    if (until >= end) break;
    if (wait(until)) return;
    log(seconds, start);
  }
  wait(end);
}

// A handle and the thread that is inside its callable: what a line of the log still needs of a
// record that may be destroyed meanwhile.
struct Running {
  Running(const Record& record, int its_thread)
      : kind(record.kind), name(record.name), module(record.module), thread(its_thread) {}
  const char* kind;
  std::string name;
  const char* module;
  int thread;
};

// What has been pending while nothing was taken.
struct Backlog {
  std::size_t pending = 0;
  int drainer = 0;          // the thread of the latest drain, or 0
  Clock::time_point since;  // the first look at it
  Clock::duration age{};
};

// Returns the callables that tasks of the bridge's queue are inside. Throws std::bad_alloc.
std::vector<Running> RunningInTasks();

// Returns such as ", thread: 4711 (decoder)", or nothing for 0, or without memory.
std::string ThreadPart(int thread) noexcept;

// Log one WARN. `thread`: the one that is inside the callable, or 0 if that is not known. `what`:
// such as "a client waits for a server".
void LogWaitingDestructor(const Record& record, int thread, int seconds) noexcept;
void LogWaiting(const char* what, const Record& record, int seconds) noexcept;
void LogWaitingCall(const WaitingReply& call, int seconds, Clock::time_point start) noexcept;

// `pushed`: a handle with something pending. Throw std::bad_alloc.
void LogUndrainedInbox(const std::string& inbox, const Record& pushed, const Backlog& backlog);
void LogUndrainedQueue(const Record& pushed, const Backlog& backlog);

// Log one WARN if the age is 10 seconds: callables may be slow. Return whether they have. Throw
// std::bad_alloc.
bool LogRunning(const Running& running, const Backlog& backlog);
bool LogRunningInTask(const Running& running, const Record& pushed, const Backlog& backlog);

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_WAITS_H_
