// Reports what the handles of the process do, and what is wrong with them. Covers all modules, even
// those loaded with RTLD_LOCAL.
//
//   #include <zorvix/inspect.h>
//
//   #include <chrono>
//   #include <iostream>
//
//   int main() {
//     const zorvix::SlowLog slow(std::chrono::milliseconds(16));
//     // ... run the app ...
//     std::cerr << zorvix::Inspect();  // a table: read its last column
//   }
//
// Inspect, which returns a HandleInfo for each handle, with its Findings; operator<< for those;
// SlowLog.
#ifndef ZORVIX_INSPECT_H_
#define ZORVIX_INSPECT_H_

#include <zorvix/timeout.h>
#include <zorvix/zorvix.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace zorvix {

enum class Problem {
  // The handle has no counterpart. The text also names those with a similar name, or with the same
  // name and another BridgeType. Not reported if endpoints without a handle have this name, and for
  // a Presence only if there is a similar name.
  NoSubscriber,
  NoPublisher,
  NoServer,
  NoHolder,
  NoClient,   // found only if there is a client of a similar name
  NoWatcher,  // in the same way
  OtherKind,  // a counterpart of that name has another BridgeType
  OtherType,  // a counterpart has another type
  Rejected,   // messages of another type have arrived
  Replaced,   // another server or holder is asked
  Drops,      // the queue was full; not for KeepLast{1}, where that is intended
  Running,    // for a second or longer
  CallsWait,  // of a client or server: blocking calls have been waiting for a second
  Slow,       // its longest invocation exceeds the limit of a SlowLog
  // Something is pending, but no thread takes it:
  NeverDrained,
  NotDrained,  // and has been pending for a second in the bridge's queue, or for ten in an inbox
  NoWorkers,
  InboxDestroyed,
};

// What is wrong with a handle, and in words, such as "no subscriber; similar name: gps/fix
// (libgps.so)".
struct Finding {
  Problem problem;
  std::string text;
};

// A handle, an inbox or the bridge's queue, at the moment at which it was looked at. Numbers count
// from its construction on.
struct HandleInfo {
  std::string kind;    // "Publisher", "Subscriber", "Server", "Client", "Holder", "Watcher",
                       // "Presence", "Inbox" or "Queue"
  std::string name;    // of the topic, service, state or inbox
  std::string module;  // file name of the module that constructed it, such as "libhud.so"
  std::string place;   // where its callable is invoked: "direct", "queued" or the inbox's name

  std::string type;      // of messages, requests or values, such as "app::Reading"
  std::string response;  // of a service

  // Handles at the other end. Of an inbox, those that are invoked there; of the queue, the workers
  // that Workers objects have started.
  std::size_t counterparts = 0;
  bool is_active = false;  // the server or holder that is asked, of those that there are

  std::uint64_t sent = 0;      // messages published, values set, calls made
  std::uint64_t received = 0;  // messages, requests, values; for a client, answers to callables
  std::uint64_t rejected = 0;  // because of their type
  std::uint64_t invocations = 0;

  // Of a handle with an inbox or queued delivery:
  std::size_t pending = 0;  // messages, requests or answers; of an inbox, of all its handles
  std::size_t depth = 0;    // of KeepLast; the largest number: KeepAll; 0: there is no queue
  std::size_t dropped = 0;

  // The thread that is inside the callable, for longest if there are several. Of an inbox and of
  // the queue, the one that drains it or was the last to do so. 0: there is no such thread.
  int thread = 0;
  std::string thread_name;
  // For how long it has been inside the callable: exact if a SlowLog existed when it entered,
  // otherwise the time since Inspect first saw it there. std::nullopt: no thread is inside. Of
  // those that are inside a direct callable, up to four are known.
  std::optional<std::chrono::nanoseconds> running_for;
  std::chrono::nanoseconds longest{0};  // invocation while a SlowLog lived

  // Of a client and of a server: threads in blocking calls, which wait for the server's answer, and
  // for how long the first of them has been waiting.
  std::size_t waiting = 0;
  std::optional<std::chrono::nanoseconds> waiting_for;
  // Of an inbox and of the queue, whose drains are seen if they invoke tasks of handles: how long
  // ago the last one was. std::nullopt: there was no drain.
  std::optional<std::chrono::nanoseconds> drained_ago;

  std::vector<Finding> findings;
};

// Returns the handles and inboxes of the process, and the bridge's queue if there are queued
// handles or workers, sorted by name, kind and module, and then in the order of construction. Any
// thread may call it at any time, also in a callable. Does not wait for callables. Handles that are
// constructed or destroyed meanwhile may be missing.
ZORVIX_EXPORT std::vector<HandleInfo> Inspect();

// Prints a table with a line for each of them, whose last column says what is wrong.
ZORVIX_EXPORT std::ostream& operator<<(std::ostream& out, const std::vector<HandleInfo>& handles);

// While an object exists, each invocation of a handle's callable or of a posted task that takes
// longer than the limit is logged as a WARN when it ends, with kind, name, module and milliseconds,
// and HandleInfo::longest is kept. If there are several objects, the smallest limit applies.
// Without an object, invocations read no clock.
class ZORVIX_EXPORT SlowLog {
 public:
  // With a `limit` of zero, or a negative one, each invocation is logged; with Timeout::Forever(),
  // no invocation is logged, but HandleInfo::longest is kept. Any thread may construct and
  // destroy it. Does not block.
  [[nodiscard]] explicit SlowLog(Timeout limit);
  ~SlowLog();
  SlowLog(const SlowLog&) = delete;
  SlowLog& operator=(const SlowLog&) = delete;

 private:
  const std::int64_t limit_;
};

}  // namespace zorvix

#endif  // ZORVIX_INSPECT_H_
