#include "dispatcher.h"

#include <algorithm>
#include <any>
#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <list>
#include <new>
#include <utility>

#include "endpoint.h"
#include "sync.h"
#include "threads.h"

namespace zorvix::detail {
namespace {

// Of the tasks of the bridge's queue.
std::atomic<int> latest_drainer{0};
std::atomic<Clock::time_point> latest_task_at{Clock::time_point()};  // when it began

// Its strand is drained by the dispatcher.
class QueuedStrand final : public Strand {
 public:
  // A list with one element, which is moved into the dispatcher's list while the strand is ready:
  // so that listing it cannot fail.
  using Element = std::list<std::shared_ptr<QueuedStrand>>;

  explicit QueuedStrand(const Endpoint& endpoint)
      : Strand("queued", endpoint.name + ", queued", endpoint.module) {}

  bool IsDrainedByTasks() const override { return true; }

 private:
  friend class Dispatcher;
  void AfterPush() override;
  void AfterClose() override;
  bool LogUndrained(const Record& pushed, const Backlog& backlog) const override;

  // Written under the dispatcher's mutex:
  Atomic<bool> listed_{false};
  bool retired_ = false;
  Element element_{1};
  const Element::iterator position_ = element_.begin();  // in whichever list it is
};

// Has a list of strands that are ready, and posts tasks for them to the bridge's queue: about 8
// at a time, however many strands are ready. A task takes the first strand and drains it, for a
// bounded number of invocations, so that other strands and other tasks of the queue get their turn.
// There is one in the process, which is never destroyed.
//
// The full queue may drop tasks. It destroys them under a lock of the bridge, where no other task
// can be posted. So if it drops the last one while strands are ready, a thread posts one anew.
class Dispatcher {
 public:
  static Dispatcher& Get() {
    static Dispatcher& dispatcher = *new Dispatcher;
    // Destroyed at process exit before the bridge, which was constructed before.
    static const Exit exit{dispatcher};
    return dispatcher;
  }

  // Adds a strand to the list, and posts tasks if too few are in the bridge's queue.
  void Schedule(QueuedStrand& strand) {
    {
      const Lock lock(mutex_);
      if (strand.retired_) return;
      if (!strand.listed_) {
        strand.element_.front() = std::static_pointer_cast<QueuedStrand>(strand.shared_from_this());
        ready_.splice(ready_.end(), strand.element_);
        strand.listed_ = true;
      }
    }
    PostTasks();
  }

  // Takes a strand out of the list for good.
  void Retire(QueuedStrand& strand) {
    std::shared_ptr<QueuedStrand> listed;  // released under no lock
    const Lock lock(mutex_);
    strand.retired_ = true;
    if (strand.listed_) listed = Unlist(strand);
  }

  void Pause() {
    const Lock lock(mutex_);
    is_paused_ = true;
  }

  void Resume() {
    const Lock lock(mutex_);
    is_paused_ = false;
  }

  // If there is no memory for a task and none is in the queue, a thread posts it later.
  void PostTasks() {
    try {
      while (NeedsTask()) PostTask();
    } catch (const std::bad_alloc&) {
      PostLater();
    }
  }

  bool HasBegunTaskAfter(Clock::time_point time) const { return latest_task_at.load() > time; }

  // Logs that no thread drains the queue, once until a thread does. Returns whether that is so.
  bool LogUndrained(const Record& pushed, const Backlog& backlog) {
    if (is_paused_ || HasBegunTaskAfter(backlog.since)) return false;
    const auto running = RunningInTasks();
    if (!running.empty()) return LogRunningInTask(running.front(), pushed, backlog);
    if (!is_logged_.exchange(true)) LogUndrainedQueue(pushed, backlog);
    return true;
  }

  // Returns whether a task is in the bridge's queue. A task that the queue has dropped is not.
  bool HasTask() const { return tasks_ != 0; }

 private:
  static constexpr int kMostTasks = 8;
  static constexpr int kInvocationsOfATask = 64;

  // Counts as a task in the queue until the task begins or is dropped.
  class Ticket {
   public:
    explicit Ticket(Dispatcher& dispatcher) : dispatcher_(dispatcher) { ++dispatcher_.tasks_; }
    ~Ticket() {
      if (Return()) dispatcher_.AfterDrop();
    }
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;
    // Returns whether this is the first time.
    bool Return() {
      if (returned_.exchange(true)) return false;
      --dispatcher_.tasks_;
      return true;
    }

   private:
    Dispatcher& dispatcher_;
    Atomic<bool> returned_{false};
  };

  struct Exit {
    ~Exit() {
      Lock lock(dispatcher.mutex_);
      dispatcher.exiting_ = true;
      while (dispatcher.reposting_) dispatcher.reposted_.Wait(lock);
    }
    Dispatcher& dispatcher;
  };

  std::shared_ptr<QueuedStrand> Unlist(QueuedStrand& strand) ZORVIX_REQUIRES(mutex_) {
    strand.element_.splice(strand.element_.begin(), ready_, strand.position_);
    strand.listed_ = false;
    return std::move(*strand.position_);
  }

  bool HasWork() const ZORVIX_REQUIRES(mutex_) { return !ready_.empty() && !is_paused_; }

  bool NeedsTask() {
    const Lock lock(mutex_);
    return HasWork() && tasks_ < static_cast<int>(std::min<std::size_t>(ready_.size(), kMostTasks));
  }

  void PostTask() {
    Bridge().Publish(subscription_.participant.control, std::make_shared<Ticket>(*this));
  }

  // Called under a lock of the bridge.
  void AfterDrop() {
    if (tasks_ == 0) PostLater();
  }

  void PostLater() {
    {
      const Lock lock(mutex_);
      if (tasks_ != 0 || reposting_ || exiting_ || !HasWork()) return;
      reposting_ = true;
    }
    try {
      Thread(&Dispatcher::Repost, this).detach();
    } catch (const std::exception&) {  // the next push tries again
      const Lock lock(mutex_);
      reposting_ = false;
    }
  }

  // One task at a time: that one posts the others.
  void Repost() {
    NameThread("zorvix poster");
    bool is_done = false;
    while (!is_done) {
      try {
        PostTask();
      } catch (const std::bad_alloc&) {
        this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      const Lock lock(mutex_);
      is_done = tasks_ != 0 || !HasWork() || exiting_;
      if (is_done) {
        reposting_ = false;
        reposted_.NotifyAll();
      }
    }
  }

  void RunTask(Ticket& ticket) {
    ticket.Return();
    latest_drainer.store(ThisThread(), std::memory_order_relaxed);
    latest_task_at.store(CoarseNow(), std::memory_order_relaxed);
    is_logged_.store(false, std::memory_order_relaxed);
    const auto strand = TakeFirst();
    if (strand == nullptr) return;
    struct ScheduleAgain {  // even after an exception
      ~ScheduleAgain() {
        if (strand.ready()) dispatcher.Schedule(strand);
      }
      Dispatcher& dispatcher;
      QueuedStrand& strand;
    } const schedule_again{*this, *strand};
    PostTasks();  // other workers take the other strands meanwhile
    const std::function<bool()> may_go_on = [this, left = kInvocationsOfATask]() mutable {
      if (left == 0 || is_paused_.load(std::memory_order_relaxed)) return false;
      --left;
      return true;
    };
    // What arrives meanwhile is cheaper to drain now than to post a task for.
    while (strand->Drain(may_go_on) != 0) {
    }
  }

  std::shared_ptr<QueuedStrand> TakeFirst() {
    const Lock lock(mutex_);
    return HasWork() ? Unlist(*ready_.front()) : nullptr;
  }

  Atomic<int> tasks_{0};
  std::atomic<bool> is_logged_{false};  // that no thread drains the queue, since then
  Atomic<bool> is_paused_{false};       // written under the mutex
  Mutex mutex_;
  QueuedStrand::Element ready_ ZORVIX_GUARDED_BY(mutex_);
  bool reposting_ ZORVIX_GUARDED_BY(mutex_) = false;
  bool exiting_ ZORVIX_GUARDED_BY(mutex_) = false;
  Condition reposted_;
  const Subscription subscription_{"zorvix/queued", bridge::BridgeType::Async,
                                   [this](const std::any& ticket) {
                                     RunTask(**std::any_cast<std::shared_ptr<Ticket>>(&ticket));
                                   }};
};

void QueuedStrand::AfterPush() {
  if (!ready()) return;  // the drain in progress sees to it
  if (listed_ && Dispatcher::Get().HasTask()) return;
  Dispatcher::Get().Schedule(*this);
}

void QueuedStrand::AfterClose() { Dispatcher::Get().Retire(*this); }

bool QueuedStrand::LogUndrained(const Record& pushed, const Backlog& backlog) const {
  return Dispatcher::Get().LogUndrained(pushed, backlog);
}

}  // namespace

void MakeDispatcher() { Dispatcher::Get(); }

std::shared_ptr<Strand> MakeQueuedStrand(const Endpoint& endpoint) {
  MakeDispatcher();  // now, since a push must not fail for it
  return std::make_shared<QueuedStrand>(endpoint);
}

bool HasBegunTaskAfter(Clock::time_point time) { return Dispatcher::Get().HasBegunTaskAfter(time); }

void PauseQueued() { Dispatcher::Get().Pause(); }

void ResumeQueued() { Dispatcher::Get().Resume(); }

QueueDrains LookAtQueueDrains() {
  return {latest_drainer.load(std::memory_order_relaxed),
          latest_task_at.load(std::memory_order_relaxed)};
}

void PostQueuedTasks() { Dispatcher::Get().PostTasks(); }

}  // namespace zorvix::detail
