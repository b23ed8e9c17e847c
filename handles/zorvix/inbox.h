// Inboxes: pending messages, requests, answers and tasks for a thread of the user's choice. They do
// not use the bridge's queue.
//
//   zorvix::Inbox inbox;
//   zorvix::Subscriber show(kSamples, [](const Sample& sample) { ... }, inbox,
//                           zorvix::KeepLast{1});
//   inbox.Drain();  // once a frame, or when inbox.fd() is readable
//
// Callables are invoked inside Drain and nowhere else, one at a time, whichever thread drains. Each
// subscriber gets its messages in the order in which they arrived. Across subscribers, too, the
// order is that of arrival, until a subscriber drops messages: its next message then takes the turn
// of the dropped one. A callable that throws a std::exception is logged and the drain goes on;
// anything else it throws leaves Drain, and the other messages stay pending.
#ifndef ZORVIX_INBOX_H_
#define ZORVIX_INBOX_H_

#include <zorvix/detail/erasure.h>
#include <zorvix/timeout.h>
#include <zorvix/zorvix.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace zorvix {

class Inbox;

namespace detail {
struct InboxState;
class DrainThread;
InboxState& StateOf(const Inbox& inbox);
}  // namespace detail

namespace detail ZORVIX_HIDDEN {
template <typename Task>
struct Posted {
  static_assert(std::is_invocable_v<Task&>, "a task must be a callable without arguments");
  void operator()() { static_cast<void>(std::invoke(task)); }
  static constexpr bool kHasAnswer = false;
  Task task;
};
}  // namespace detail

// Any thread may call any function at any time. The destructor discards what is pending; no other
// thread may be inside a function then, but a callable of a drain may destroy the inbox. The inbox
// may be destroyed before its subscribers, servers and clients: what arrives later is ignored, and
// the callers of pending requests get Why::Destroyed. After fork, the child must not drain a copy:
// both processes share the descriptor.
class ZORVIX_EXPORT Inbox {
 public:
  // The name appears in log lines about tasks, and in traces, and an InboxThread takes it over. The
  // module is filled in.
  explicit Inbox(const std::string& name = "inbox", detail::Module& module = detail::this_module);
  ~Inbox();
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;

  // Invokes the callables for what is pending now, on this thread, and returns how many it has
  // invoked. What arrives meanwhile is left to the next drain. Returns 0 while another drain is in
  // progress, also on this thread.
  std::size_t Drain();

  // Does the same, but invokes no further callable once `timeout` is over. It invokes at least one.
  // The rest stays pending, in order.
  std::size_t Drain(Timeout timeout);

  // Blocks until something is pending and no drain is in progress. Do not call it in a drain of the
  // inbox.
  void Wait() const;

  // Does the same, but for at most `timeout`. Returns whether something is pending and no drain is
  // in progress.
  bool Wait(Timeout timeout) const;

  // Returns a descriptor for poll, epoll or ALooper_addFd. It is readable while something is
  // pending and no drain is in progress. Do not read or close it. The first call creates it. Throws
  // std::system_error.
  int fd() const;

  // Adds a task, which a drain invokes in its turn. Does not block. Tasks are never dropped. If the
  // inbox belongs to another module, the calling module stays loaded from then on, even after
  // dlclose, since the task is its code.
  //
  // The task is any callable without arguments; it is moved, so it need not be copyable.
  template <typename Task>
  void Post(Task task) {
    Post(detail::Function<>(std::in_place_type<detail::Posted<Task>>, std::move(task)),
         detail::this_module);
  }

 private:
  void Post(detail::Function<>&& task, detail::Module& module);

  friend detail::InboxState& detail::StateOf(const Inbox& inbox);
  const std::shared_ptr<detail::InboxState> state_;
};

// Drains an inbox on a thread of its own. The inbox must live longer. No other thread should drain
// it meanwhile.
class ZORVIX_EXPORT InboxThread {
 public:
  // Traces and debuggers show the thread's name, which is that of the inbox if none is given. It
  // has at most 15 bytes: a longer one is cut. A callable may rename the thread. Throws
  // std::system_error if the thread cannot be started.
  [[nodiscard]] explicit InboxThread(Inbox& inbox, const std::string& name = "");
  // Does the same as Stop().
  ~InboxThread();
  InboxThread(const InboxThread&) = delete;
  InboxThread& operator=(const InboxThread&) = delete;

  // Processes what is pending, then ends the thread, and blocks until it has ended. Called on the
  // inbox's own thread, it logs an ERROR and ends the process. Must not be called by two threads at
  // the same time.
  void Stop();

  // Does the same, but invokes no further callable once `timeout` is over: with a timeout of 0,
  // none but the one whose invocation is in progress. Blocks until that one has returned. Returns
  // whether everything was processed: the rest stays in the inbox, for the next drain. Called
  // again, it does nothing and returns the same.
  bool Stop(Timeout timeout);

 private:
  const std::unique_ptr<detail::DrainThread> thread_;
};

}  // namespace zorvix

#endif  // ZORVIX_INBOX_H_
