// The pending messages of one handle, and how a mailbox drains them. Not for users.
#ifndef ZORVIX_DETAIL_QUEUE_H_
#define ZORVIX_DETAIL_QUEUE_H_

#include <zorvix/detail/mailbox.h>
#include <zorvix/detail/measured.h>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

// The pending messages of one handle, in a mailbox.
class Queue : public Record, public std::enable_shared_from_this<Queue> {
 public:
  Queue(const char* its_kind, std::string its_name, std::shared_ptr<Mailbox> mailbox)
      : Record(its_kind, std::move(its_name)), mailbox_(std::move(mailbox)) {}

  // Discards what is pending and waits for an invocation on another thread. Then destroys the
  // callable, or leaves that to the drain, if the callable itself closes the queue. Later pushes
  // are ignored.
  void Close() ZORVIX_NO_THREAD_SAFETY_ANALYSIS;

  Mailbox& mailbox() const { return *mailbox_; }

 protected:
  using Lock = Mailbox::Lock;

  // Takes the oldest pending message, unlocks with Unlock, and invokes the callable.
  virtual void TakeAndInvoke(Lock& lock) = 0;
  // Removes all pending messages, unlocks and destroys them.
  virtual void Discard(Lock& lock) = 0;
  virtual void DestroyCallable() = 0;

  // For those who push, take or discard, under the mailbox's mutex.
  std::mutex& mutex() const { return mailbox_->mutex_; }
  bool IsClosed() const ZORVIX_NO_THREAD_SAFETY_ANALYSIS { return closed_ || mailbox_->shut_; }
  Turns& turns() const ZORVIX_NO_THREAD_SAFETY_ANALYSIS { return mailbox_->turns_; }
  // There must be room for it.
  void AddTurn() noexcept ZORVIX_NO_THREAD_SAFETY_ANALYSIS {
    turns().Push(this);
    mailbox_->UpdateReadiness();
  }
  void RemoveTurns() ZORVIX_NO_THREAD_SAFETY_ANALYSIS {
    mailbox_->turns_left_ -= turns().Remove(this, mailbox_->turns_left_);
    mailbox_->UpdateReadiness();
  }
  void Unlock(Lock& lock) const ZORVIX_NO_THREAD_SAFETY_ANALYSIS {
    mailbox_->Trace(turns().size());
    lock.unlock();
  }
  void AfterPush() const { mailbox_->AfterPush(); }

  template <typename Function>
  void Invoke(const Function& function) {
    try {
      const Measured measured(*this);
      function();
    } catch (const std::exception& error) {
      ZORVIX_LOG("detail/queue.h", bridge::kLogError, "callable failed! error: %s, name: %s",
                 error.what(), name.c_str());
    }
  }

 private:
  friend class Mailbox;
  const std::shared_ptr<Mailbox> mailbox_;
  bool closed_ = false;
};

template <typename Condition>
std::size_t Mailbox::Drain(const Condition& may_go_on) {
  Lock lock(mutex_);
  if (draining_) return 0;
  draining_ = true;
  drainer_ = std::this_thread::get_id();
  turns_left_ = turns_.size();
  UpdateReadiness();
  std::size_t count = 0;
  // The condition is tested before a message is taken, so no message has to be put back.
  while (turns_left_ != 0 && (count == 0 || may_go_on())) {
    Queue& queue = *turns_.front();
    turns_.Pop();
    --turns_left_;
    ++count;
    invoking_ = &queue;
    try {
      queue.TakeAndInvoke(lock);
    } catch (...) {
      EndInvocation(lock);
      EndDrain();
      throw;
    }
    EndInvocation(lock);
  }
  EndDrain();
  return count;
}

inline void Mailbox::EndInvocation(Lock& lock) {
  lock.lock();
  invoking_ = nullptr;
  if (closing_ != 0) invocation_ended_.notify_all();
  if (closed_by_its_callable_ == nullptr) return;
  auto closed = std::move(closed_by_its_callable_);
  lock.unlock();
  closed->DestroyCallable();
  closed.reset();
  lock.lock();
}

inline void Mailbox::Shut() {
  Lock lock(mutex_);
  shut_ = true;
  while (turns_.size() != 0) {
    turns_.front()->shared_from_this()->Discard(lock);
    lock.lock();
  }
}

inline void Queue::Close() {
  Mailbox& mailbox = *mailbox_;
  Lock lock(mailbox.mutex_);
  closed_ = true;
  Discard(lock);
  mailbox.AfterClose();
  lock.lock();
  if (mailbox.invoking_ == this) {
    if (mailbox.drainer_ == std::this_thread::get_id()) {
      mailbox.closed_by_its_callable_ = shared_from_this();
      return;
    }
    const auto ended = [&]() ZORVIX_NO_THREAD_SAFETY_ANALYSIS { return mailbox.invoking_ != this; };
    ++mailbox.closing_;
    if (!mailbox.invocation_ended_.wait_for(lock, std::chrono::seconds(1), ended)) {
      lock.unlock();
      ZORVIX_LOG("detail/queue.h", bridge::kLogWarn,
                 "a destructor waits for its callable to return, name: %s", name.c_str());
      lock.lock();
      mailbox.invocation_ended_.wait(lock, ended);
    }
    --mailbox.closing_;
  }
  lock.unlock();
  DestroyCallable();
}

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_QUEUE_H_
