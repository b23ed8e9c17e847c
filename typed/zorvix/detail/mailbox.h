// Pending messages of several subscribers, for callables that are invoked one at a time. Not for
// users: inboxes, queued subscribers, watchers and clients with an inbox are made of it.
//
// A mailbox has one mutex. Each subscriber has a queue of pending messages in it, and the mailbox
// has the turns: a list of queues, in the order in which their messages arrived. An open queue has
// as many turns as pending messages. A drain takes one turn after the other, and the oldest message
// of its queue. When a queue drops a message, the turn stays, for the next message of that queue:
// so a subscriber that drops messages is invoked as early as if it did not.
#ifndef ZORVIX_DETAIL_MAILBOX_H_
#define ZORVIX_DETAIL_MAILBOX_H_

#include <sys/eventfd.h>
#include <unistd.h>
#include <zorvix/detail/registry.h>
#include <zorvix/detail/turns.h>

#include <cerrno>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

class Mailbox : public std::enable_shared_from_this<Mailbox> {
 public:
  // Without a name, it has no counter in traces.
  explicit Mailbox(const std::string& name)
      : process_(ThisProcess()), counter_name_(CounterName(name)) {}
  virtual ~Mailbox() {
    if (fd_ >= 0) close(fd_);
  }
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;

  // Takes as many turns as there are when it begins, on this thread: the first in any case, the
  // others as long as `may_go_on` returns true. Returns how many callables it has invoked: 0 if a
  // drain is in progress already. Lets through what callables throw that is not a std::exception,
  // and can be called again then.
  template <typename Condition>
  std::size_t Drain(const Condition& may_go_on) ZORVIX_NO_THREAD_SAFETY_ANALYSIS;

  // Discards all pending messages; later ones are ignored.
  void Shut() ZORVIX_NO_THREAD_SAFETY_ANALYSIS;

  // Blocks until it is ready, or `stop`, or until `end`. Returns whether it is ready.
  bool Wait(Clock::time_point end, const std::atomic<bool>& stop) {
    std::unique_lock lock(mutex_);
    became_ready_.wait_until(lock, end, [&] { return ready_ || stop; });
    return ready_;
  }
  void Stop(std::atomic<bool>& stop) {
    {
      const std::lock_guard lock(mutex_);
      stop = true;
    }
    became_ready_.notify_all();
  }

  // Returns a descriptor that is readable while the mailbox is ready. Throws std::system_error.
  int fd() {
    const std::lock_guard lock(mutex_);
    if (fd_ < 0) fd_ = eventfd(ready_, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    return fd_;
  }

  // Something is pending and no drain is in progress.
  bool ready() const { return ready_; }

  bool IsDrainedByThisThread() {
    const std::lock_guard lock(mutex_);
    return draining_ && drainer_ == std::this_thread::get_id();
  }

  std::size_t pending() {
    const std::lock_guard lock(mutex_);
    return turns_.size();
  }

 protected:
  // Called after a message has been pushed, under no lock.
  virtual void AfterPush() {}
  // Called while a queue is closed, under no lock.
  virtual void AfterClose() {}

 private:
  friend class Queue;
  using Lock = std::unique_lock<std::mutex>;  // which the thread safety analysis does not know

  void EndInvocation(Lock& lock) ZORVIX_NO_THREAD_SAFETY_ANALYSIS;
  void EndDrain() ZORVIX_REQUIRES(mutex_);
  void UpdateReadiness() ZORVIX_REQUIRES(mutex_);
  static std::string CounterName(const std::string& name) {
    if (name.empty()) return {};
    return "pending " + name + ", " + ModuleName();
  }
  // Called under the mutex, so that the counter never shows an older number after a later one.
  void Trace(std::size_t pending) const {
    if (process_.set_counter == nullptr || !process_.IsTracing() || counter_name_.empty()) return;
    process_.set_counter(counter_name_.c_str(), static_cast<std::int64_t>(pending));
  }

  const Process& process_;
  const std::string counter_name_;

  std::mutex mutex_;
  Turns turns_ ZORVIX_GUARDED_BY(mutex_);
  bool shut_ ZORVIX_GUARDED_BY(mutex_) = false;
  int fd_ ZORVIX_GUARDED_BY(mutex_) = -1;
  std::atomic<bool> ready_{false};  // written under the mutex
  std::condition_variable became_ready_;

  // The drain in progress.
  bool draining_ ZORVIX_GUARDED_BY(mutex_) = false;
  std::thread::id drainer_ ZORVIX_GUARDED_BY(mutex_);
  std::size_t turns_left_ ZORVIX_GUARDED_BY(mutex_) = 0;
  Queue* invoking_ ZORVIX_GUARDED_BY(mutex_) = nullptr;
  std::shared_ptr<Queue> closed_by_its_callable_ ZORVIX_GUARDED_BY(mutex_);
  std::size_t closing_ ZORVIX_GUARDED_BY(mutex_) = 0;  // threads that wait for:
  std::condition_variable invocation_ended_;
};

inline void Mailbox::EndDrain() {
  draining_ = false;
  UpdateReadiness();
}

inline void Mailbox::UpdateReadiness() {
  const bool ready = turns_.size() != 0 && !draining_;
  if (ready == ready_.load(std::memory_order_relaxed)) return;
  ready_.store(ready, std::memory_order_release);
  if (ready) became_ready_.notify_all();
  if (fd_ < 0) return;
  eventfd_t count = 1;
  if (ready) {
    eventfd_write(fd_, count);
  } else {
    eventfd_read(fd_, &count);
  }
}

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_MAILBOX_H_
