// Inboxes: pending messages, requests, answers and tasks for a thread of the user's choice (similar
// to a Looper's queue, or a folly::ManualExecutor).
//
//   #include <zorvix/inbox.h>
//   #include <zorvix/typed.h>
//
//   inline constexpr zorvix::Topic<float> kLevels{"levels"};
//
//   int main() {
//     zorvix::Inbox inbox("screen");
//     float shown = 0;
//     const zorvix::Subscriber show(kLevels, [&](float level) { shown = level; }, inbox);
//     zorvix::Publisher(kLevels).Publish(0.5f);  // on any thread
//     inbox.Drain();  // on this one: once a frame, or when inbox.fd() is readable
//     return shown == 0.5f ? 0 : 1;
//   }
//
// Inbox: Drain, Wait, fd, Post. InboxThread: Stop.
//
// Callables are invoked in drains of their inbox and nowhere else, one at a time, whichever thread
// drains. An inbox does not use the bridge's queue.
//
// Each subscriber gets its messages in the order in which they arrived. Across subscribers, too,
// the order is that of arrival, until a subscriber drops messages: its next message then takes the
// turn of the dropped one. A callable that throws a std::exception is logged and the drain goes on;
// anything else it throws leaves Drain, and the other messages stay pending.
#ifndef ZORVIX_INBOX_H_
#define ZORVIX_INBOX_H_

#include <zorvix/detail/erasure.h>
#include <zorvix/detail/inbox.h>
#include <zorvix/timeout.h>
#include <zorvix/zorvix.h>

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

namespace zorvix {

// Any thread may call any function at any time, also in a callable, unless its comment says
// otherwise.
class ZORVIX_EXPORT Inbox {
 public:
  // The name appears in log lines about tasks, and in traces, and an InboxThread takes it over. Do
  // not pass a module: it is filled in.
  explicit Inbox(const std::string& name = "inbox", detail::Module& module = detail::this_module);

  // Discards what is pending. Handles may outlive their inbox: what arrives for them later is
  // ignored, and the callers of pending requests get Why::Destroyed. A callable of a drain may
  // destroy the inbox, unless an InboxThread drains it. Remove the descriptor from your loop
  // before: it is closed here, or with the last handle.
  // REQUIRES: no other thread is inside a function of it.
  ~Inbox();
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;

  // Invokes the callables for what is pending now, on this thread. What arrives meanwhile is left
  // to the next drain. Returns how many it has invoked: 0 while another drain is in progress, even
  // on this thread.
  // REQUIRES: this process is not the child of a fork after the inbox was constructed. It would
  // share the descriptor with its parent.
  std::size_t Drain();

  // As Drain(), but invokes no further callable once `timeout` is over. It invokes at least one.
  // The rest stays pending, in order.
  std::size_t Drain(Timeout timeout);

  // Blocks until something is pending and no drain is in progress.
  // REQUIRES: this thread is not in a drain of the inbox.
  void Wait() const;

  // As Wait(), but blocks for at most `timeout`. Returns whether something is pending and no drain
  // is in progress.
  bool Wait(Timeout timeout) const;

  // Returns a descriptor for poll, epoll or ALooper_addFd. It is readable while something is
  // pending and no drain is in progress. Do not read or close it. The first call creates it, and
  // throws std::system_error if it cannot.
  int fd() const;

  // Adds a task, which a drain invokes in its turn. Does not block. Tasks are never dropped. `task`
  // is any callable without arguments; it is moved, so it need not be copyable. Throws
  // std::bad_alloc.
  //
  // If the inbox belongs to another module, the calling module stays loaded from then on, even
  // after dlclose, since the task is its code.
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

// Drains an inbox on a thread of its own (similar to Android's HandlerThread).
class ZORVIX_EXPORT InboxThread {
 public:
  // Traces and debuggers show the thread's name: by default that of the inbox. It has at most 15
  // bytes; a longer one is cut. A callable may rename the thread. Throws std::system_error if the
  // thread cannot be started.
  // REQUIRES: `inbox` lives longer, and no other thread drains it meanwhile.
  [[nodiscard]] explicit InboxThread(Inbox& inbox, const std::string& name = "");

  // As Stop().
  ~InboxThread();
  InboxThread(const InboxThread&) = delete;
  InboxThread& operator=(const InboxThread&) = delete;

  // Processes what is pending, then ends the thread, and blocks until it has ended. What arrives
  // during the last drain stays in the inbox. Called again, it does nothing.
  // REQUIRES: no other thread is inside Stop. A callable of the inbox must not call it: that logs
  // an ERROR and ends the process.
  void Stop();

  // As Stop(), but invokes no further callable once `timeout` is over: with a timeout of 0, none
  // but the one whose invocation is in progress. Blocks until that one has returned. Returns
  // whether everything was processed: the rest stays in the inbox, for the next drain. Called
  // again, it returns the same.
  bool Stop(Timeout timeout);

 private:
  const std::unique_ptr<detail::DrainThread> thread_;
};

}  // namespace zorvix

#endif  // ZORVIX_INBOX_H_
