// Inboxes: places of one's own in which messages wait until a thread that the owner chooses drains
// them. They never touch the bridge's queue.
//
//   zorvix::Inbox inbox;
//   zorvix::Subscriber show(kSamples, [](const Sample& sample) { ... }, inbox,
//   zorvix::KeepLast{1}); inbox.Drain();  // once a frame, or when inbox.fd() is readable
//
// Callables run inside Drain and nowhere else, one at a time whoever drains, in the order in which
// what they get came to the inbox. One that throws a std::exception is logged and contained;
// anything else it throws leaves Drain, and what waits goes on waiting.
#ifndef ZORVIX_INBOX_H_
#define ZORVIX_INBOX_H_

#include <zorvix/room.h>

#include <cstdlib>
#include <thread>

namespace zorvix {

namespace detail ZORVIX_HIDDEN {
// What an inbox shares with its subscribers.
struct Box final : Room {
  using Task = std::function<void()>;
  const std::shared_ptr<Line> tasks = MakeLine<Task>(
      "task of an inbox", [](const Task& task) { task(); }, KeepLast{~std::size_t{0}});
};
}  // namespace detail

// Owns no thread. Any thread may call it at any time, but none may be inside when it goes, unless
// it goes in its own drain. It may go before its subscribers: they drop what comes then. Memory is
// bounded by what they keep. Another module's subscribers must go before their module does.
class Inbox {
 public:
  ZORVIX_HIDDEN Inbox() : box_(std::make_shared<detail::Box>()) {}
  ZORVIX_HIDDEN ~Inbox() { box().Shut(); }
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;

  // Runs what waited when it began, on this thread, and returns how many that were. What comes
  // meanwhile is the next one's. A second drain at a time, or a nested one, returns 0 at once.
  ZORVIX_HIDDEN std::size_t Drain() {
    const auto outlives_this = box_;
    return box().Drain();
  }

  // Blocks until something waits and nobody drains, or for that long; negative: without limit.
  // Returns whether something waits.
  ZORVIX_HIDDEN bool Wait(std::chrono::milliseconds at_most) const {
    return box().Wait(detail::Deadline(at_most), false);
  }

  // Returns a descriptor that is readable while something waits and nobody drains: for poll, epoll
  // or ALooper_addFd, not to be read or closed. The first call makes it; without, nothing costs a
  // system call. Throws std::system_error when there is none to be had.
  ZORVIX_HIDDEN int fd() const { return box().fd(); }

  // Has `task` run in a drain, after what waits already. Tasks are not lost, however many wait.
  ZORVIX_HIDDEN void Post(std::function<void()> task) {
    box().Push(box().tasks, detail::Pack(std::move(task)));
  }

 private:
  friend class InboxThread;
  template <typename Message, bridge::BridgeType kType>
  friend class Subscriber;
  template <typename Value>
  friend class Watcher;
  ZORVIX_HIDDEN detail::Box& box() const { return *static_cast<detail::Box*>(box_.get()); }

  const std::shared_ptr<void> box_;
};

// Drains an inbox, which must outlive it, on a thread of its own. Nobody else should drain that.
class InboxThread {
 public:
  [[nodiscard]] ZORVIX_HIDDEN explicit InboxThread(Inbox& inbox)
      : inbox_(inbox), thread_([this] { Run(); }) {}
  // Runs what waits, then joins. On its own thread it ends the process, with an ERROR.
  ZORVIX_HIDDEN ~InboxThread() {
    if (thread_.get_id() == std::this_thread::get_id()) {
      BRIDGE_LOG(bridge::kLogError, "an InboxThread is destroyed by what it runs");
      std::abort();
    }
    {
      const std::lock_guard lock(inbox_.box().mutex);
      stop_ = true;
    }
    inbox_.box().changed.notify_all();
    thread_.join();
  }
  InboxThread(const InboxThread&) = delete;
  InboxThread& operator=(const InboxThread&) = delete;

 private:
  ZORVIX_HIDDEN void Run() {
    while (!stop_) {
      inbox_.box().Wait(detail::Deadline(std::chrono::milliseconds(-1)), stop_);
      inbox_.Drain();
    }
    inbox_.Drain();  // what came behind the one before
  }

  Inbox& inbox_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace zorvix

#endif  // ZORVIX_INBOX_H_
