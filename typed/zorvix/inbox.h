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

#include <zorvix/detail/message_queue.h>

#include <functional>

namespace zorvix {

namespace detail ZORVIX_HIDDEN {

// What an inbox shares with its subscribers.
class InboxMailbox final : public Mailbox {
 public:
  using Mailbox::Mailbox;
};

struct InvokeTask {
  void operator()(const std::function<void()>& task) const { task(); }
};
using TaskQueue = MessageQueue<std::function<void()>, InvokeTask>;

struct InboxState {
  explicit InboxState(const std::string& name)
      : mailbox(std::make_shared<InboxMailbox>(name)),
        tasks(std::make_shared<TaskQueue>("Inbox", name, mailbox, InvokeTask(), KeepAll())) {}
  const std::shared_ptr<Mailbox> mailbox;
  const std::shared_ptr<TaskQueue> tasks;
};

// The function of a thread. A type of its own, since a lambda in a visible class would leave the
// standard library's code for threads visible.
template <typename Object>
struct RunObject {
  void operator()() const { object->Run(); }
  Object* object;
};

}  // namespace detail

// Any thread may call any function at any time. The destructor discards what is pending; no other
// thread may be inside a function then, but a callable of a drain may destroy the inbox. The inbox
// may be destroyed before its subscribers, servers and clients: what arrives later is ignored, and
// pending requests are answered with none. After fork, the child must not drain a copy: both
// processes share the descriptor.
class Inbox {
 public:
  // The name appears in log lines about tasks, and in traces.
  ZORVIX_HIDDEN explicit Inbox(const std::string& name = "inbox")
      : state_(std::make_shared<detail::InboxState>(name)) {}
  ZORVIX_HIDDEN ~Inbox() { state().mailbox->Shut(); }
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;

  // Invokes the callables for what is pending now, on this thread, and returns how many it has
  // invoked. What arrives meanwhile is left to the next drain. Returns 0 while another drain is in
  // progress, also on this thread.
  ZORVIX_HIDDEN std::size_t Drain() {
    const auto keeps_state = state_;  // a callable may destroy the inbox
    return state().mailbox->Drain([] { return true; });
  }

  // Does the same, but invokes no further callable once that time is over. It invokes at least one.
  // The rest stays pending, in order.
  ZORVIX_HIDDEN std::size_t Drain(std::chrono::milliseconds limit) {
    const auto keeps_state = state_;
    const auto end = detail::Deadline(limit);
    return state().mailbox->Drain([end] { return detail::Clock::now() < end; });
  }

  // Blocks until something is pending and no drain is in progress, and returns true. Returns false
  // after that time; a negative limit means without limit. Do not call it in a drain of the inbox.
  ZORVIX_HIDDEN bool Wait(std::chrono::milliseconds limit) const {
    return state().mailbox->Wait(detail::Deadline(limit), false);
  }

  // Returns a descriptor for poll, epoll or ALooper_addFd. It is readable while something is
  // pending and no drain is in progress. Do not read or close it. The first call creates it. Throws
  // std::system_error.
  ZORVIX_HIDDEN int fd() const { return state().mailbox->fd(); }

  // Adds a task, which a drain invokes in its turn. Does not block. Tasks are never dropped.
  ZORVIX_HIDDEN void Post(std::function<void()> task) { state().tasks->Push(std::move(task)); }

 private:
  friend class InboxThread;
  template <typename Message, bridge::BridgeType kType>
  friend class Subscriber;
  template <typename Request, typename Response, bridge::BridgeType kType>
  friend class Server;
  template <typename Request, typename Response, bridge::BridgeType kType>
  friend class Client;
  template <typename Value>
  friend class Watcher;
  ZORVIX_HIDDEN detail::InboxState& state() const {
    return *static_cast<detail::InboxState*>(state_.get());
  }

  const std::shared_ptr<void> state_;
};

// Drains an inbox on a thread of its own. The inbox must live longer. No other thread should drain
// it meanwhile.
class InboxThread {
 public:
  // Throws std::system_error if the thread cannot be started.
  [[nodiscard]] ZORVIX_HIDDEN explicit InboxThread(Inbox& inbox)
      : mailbox_(inbox.state().mailbox), thread_(detail::RunObject<InboxThread>{this}) {}
  // Does the same as Stop without a limit.
  ZORVIX_HIDDEN ~InboxThread() { Stop(std::chrono::milliseconds(-1)); }
  InboxThread(const InboxThread&) = delete;
  InboxThread& operator=(const InboxThread&) = delete;

  // Processes what is pending for at most that long, then ends the thread; a negative limit means
  // without limit. Blocks until an invocation in progress has returned. Returns whether everything
  // was processed: the rest stays in the inbox, for the next drain. Called again, it does
  // nothing and returns the same. Must not be called by two threads at the same time. Called on the
  // inbox's own thread, it logs an ERROR and ends the process.
  ZORVIX_HIDDEN bool Stop(std::chrono::milliseconds limit) {
    if (!thread_.joinable()) return processed_all_;
    if (thread_.get_id() == std::this_thread::get_id()) {
      ZORVIX_LOG("inbox.h", bridge::kLogError,
                 "an InboxThread is stopped by a callable it invokes");
      std::abort();
    }
    end_ = detail::Deadline(limit);
    mailbox()->Stop(stop_);
    thread_.join();
    return processed_all_;
  }

 private:
  friend struct detail::RunObject<InboxThread>;
  ZORVIX_HIDDEN std::shared_ptr<detail::Mailbox> mailbox() const {
    return std::static_pointer_cast<detail::Mailbox>(mailbox_);
  }
  ZORVIX_HIDDEN void Run() {
    const auto mailbox = this->mailbox();
    const auto may_go_on = [this] { return !stop_ || detail::Clock::now() < end_; };
    while (!stop_) {
      mailbox->Wait(detail::Deadline(std::chrono::milliseconds(-1)), stop_);
      mailbox->Drain(may_go_on);
    }
    // What arrived during the last drain.
    if (may_go_on()) mailbox->Drain(may_go_on);
    processed_all_ = !mailbox->ready();
  }

  const std::shared_ptr<void> mailbox_;
  std::atomic<bool> stop_{false};
  detail::Clock::time_point end_;  // written before stop_
  bool processed_all_ = false;
  std::thread thread_;
};

}  // namespace zorvix

#endif  // ZORVIX_INBOX_H_
