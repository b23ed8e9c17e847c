// Queued delivery: drains mailboxes in tasks of the bridge's queue. Not for users.
#ifndef ZORVIX_DETAIL_DISPATCHER_H_
#define ZORVIX_DETAIL_DISPATCHER_H_

#include <zorvix/detail/endpoint.h>
#include <zorvix/detail/queue.h>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

class Dispatcher;

// The mailbox of one queued subscriber.
class QueuedMailbox final : public Mailbox {
 public:
  QueuedMailbox(const std::string& name, std::shared_ptr<Dispatcher> dispatcher)
      : Mailbox(name), dispatcher_(std::move(dispatcher)) {}

 private:
  friend class Dispatcher;
  // Inline here, or every file that includes this would have the code.
  inline void AfterPush() override;
  inline void AfterClose() override;

  const std::shared_ptr<Dispatcher> dispatcher_;
  // Written under the dispatcher's mutex:
  std::atomic<bool> listed_{false};
  bool retired_ = false;
};

// Has a list of mailboxes that are ready, and posts tasks for them to the bridge's queue: at most 8
// at a time, however many mailboxes are ready. A task takes the first mailbox and drains it. One
// dispatcher serves all queued subscribers of a module, and lives as long as one of them does.
class Dispatcher : public std::enable_shared_from_this<Dispatcher> {
 public:
  static std::shared_ptr<Dispatcher> OfThisModule() {
    static std::mutex mutex;
    static std::weak_ptr<Dispatcher> current;
    const std::lock_guard lock(mutex);
    auto dispatcher = current.lock();
    if (dispatcher == nullptr) {
      dispatcher = std::make_shared<Dispatcher>();
      dispatcher->Subscribe();
      current = dispatcher;
    }
    return dispatcher;
  }

  Dispatcher()
      : topic_("zorvix/queued/" + std::to_string(reinterpret_cast<std::uintptr_t>(this))),
        publisher_(DescribeTopic(topic_, bridge::BridgeType::Async)) {}

  // Adds a mailbox to the list, and posts tasks if too few are in the bridge's queue.
  void Schedule(QueuedMailbox& mailbox) {
    {
      const std::lock_guard lock(mutex_);
      if (mailbox.retired_) return;
      if (!mailbox.listed_) {
        ready_.push_back(mailbox.shared_from_this());
        mailbox.listed_ = true;
      }
    }
    PostTasks();
  }

  // Takes a mailbox out of the list for good. Otherwise a listed mailbox and the dispatcher would
  // keep each other.
  void Retire(QueuedMailbox& mailbox) {
    const std::lock_guard lock(mutex_);
    mailbox.retired_ = true;
    const auto is_this = [&](const auto& other) { return other.get() == &mailbox; };
    ready_.erase(std::remove_if(ready_.begin(), ready_.end(), is_this), ready_.end());
  }

  // Returns whether a task is in the bridge's queue. A task that the queue has dropped is not.
  bool HasTask() const { return *tasks_ != 0; }

 private:
  static constexpr int kMostTasks = 8;
  static constexpr int kDrainsOfATask = 8;

  // Counts as a task in the queue until the task begins or is dropped. A dropped task is destroyed
  // under a lock of the bridge, and perhaps after the dispatcher.
  class Ticket {
   public:
    explicit Ticket(std::shared_ptr<std::atomic<int>> tasks) : tasks_(std::move(tasks)) {
      ++*tasks_;
    }
    ~Ticket() { Return(); }
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;
    void Return() {
      if (!returned_.exchange(true)) --*tasks_;
    }

   private:
    const std::shared_ptr<std::atomic<int>> tasks_;
    std::atomic<bool> returned_{false};
  };

  // The task does not keep the dispatcher, which may be destroyed while the task is queued.
  void Subscribe() {
    const auto run = [weak = weak_from_this()](const std::any& ticket) {
      std::any_cast<const std::shared_ptr<Ticket>&>(ticket)->Return();
      if (const auto dispatcher = weak.lock()) dispatcher->RunTask();
    };
    subscription_.emplace(topic_, bridge::BridgeType::Async, run);
  }

  void PostTasks() {
    while (true) {
      std::shared_ptr<Ticket> ticket;
      {
        const std::lock_guard lock(mutex_);
        const int wanted = static_cast<int>(std::min<std::size_t>(ready_.size(), kMostTasks));
        if (*tasks_ >= wanted) return;
        ticket = std::make_shared<Ticket>(tasks_);
      }
      Bridge().Publish(publisher_.control, std::move(ticket));
    }
  }

  void RunTask() {
    const auto mailbox = TakeFirst();
    if (mailbox == nullptr) return;
    try {
      PostTasks();  // other workers take the other mailboxes meanwhile
      // What arrives meanwhile is cheaper to drain now than to post a task for.
      const auto go_on = [] { return true; };
      for (int drains = 0; drains < kDrainsOfATask && mailbox->Drain(go_on) != 0; ++drains) {
      }
    } catch (...) {
      if (mailbox->ready()) Schedule(*mailbox);
      throw;
    }
    if (mailbox->ready()) Schedule(*mailbox);
  }

  std::shared_ptr<QueuedMailbox> TakeFirst() {
    const std::lock_guard lock(mutex_);
    if (ready_.empty()) return nullptr;
    auto mailbox = std::static_pointer_cast<QueuedMailbox>(ready_.front());
    ready_.pop_front();
    mailbox->listed_ = false;
    return mailbox;
  }

  const std::string topic_;  // named by the address of this, which no other dispatcher has
  const Participant publisher_;
  const std::shared_ptr<std::atomic<int>> tasks_ = std::make_shared<std::atomic<int>>(0);
  std::mutex mutex_;
  std::deque<std::shared_ptr<Mailbox>> ready_ ZORVIX_GUARDED_BY(mutex_);
  std::optional<Subscription> subscription_;
};

inline void QueuedMailbox::AfterPush() {
  if (!ready()) return;  // the drain in progress sees to it
  if (listed_ && dispatcher_->HasTask()) return;
  dispatcher_->Schedule(*this);
}

inline std::shared_ptr<Mailbox> MakeQueuedMailbox(const std::string& name) {
  return std::make_shared<QueuedMailbox>(name, Dispatcher::OfThisModule());
}

inline void QueuedMailbox::AfterClose() { dispatcher_->Retire(*this); }

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_DISPATCHER_H_
