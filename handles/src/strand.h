// Strands invoke callables one at a time: inboxes, queued handles, watchers and clients with an
// inbox are made of them.
//
// A strand has one mutex. Each handle has a queue of what is pending for it, and each pending
// message has a turn in that queue. A drain takes the lowest turn of all queues, and the oldest
// message of its queue. If a queue drops its oldest message, the next one takes over the turn: so a
// subscriber that drops messages is invoked as early as if it did not.
//
// Invariants, under the mutex: the agenda has an entry for each open queue that has something
// pending, with the lowest of its turns, and no other; `ready_` is true while the agenda has an
// entry and no drain is in progress.
#ifndef ZORVIX_HANDLES_STRAND_H_
#define ZORVIX_HANDLES_STRAND_H_

#include <zorvix/delivery.h>

#include <atomic>
#include <cstddef>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "agenda.h"
#include "descriptor.h"
#include "records.h"
#include "sync.h"
#include "waits.h"

namespace zorvix::detail {

// Something that ends at a time, unless it has ended before.
class Timed {
 public:
  // Called once, under the mutex of the strand. Must call RemoveTimeout.
  virtual void Expire() = 0;

 protected:
  ~Timed() = default;
};
using Timeouts = std::multimap<Clock::time_point, Timed*>;

class Strand : public std::enable_shared_from_this<Strand> {
 public:
  // `its_place` is "direct", "queued" or the name of an inbox. Without the name of a counter, it
  // has none in traces.
  Strand(const std::string& its_place, const std::string& counter, Module& module);
  virtual ~Strand();
  Strand(const Strand&) = delete;
  Strand& operator=(const Strand&) = delete;

  // Lets timeouts expire, then takes what is pending, on this thread, as long as `may_go_on`, if
  // given, returns true: it is called before each message is taken, under the mutex. Returns how
  // many callables it has invoked: 0 if a drain is in progress already. Lets through what callables
  // throw that is not a std::exception, and can be called again then.
  std::size_t Drain(const std::function<bool()>& may_go_on = nullptr);

  // Discards all that is pending; what arrives later is ignored. If a callable of a drain calls
  // this, the drain keeps `owner`, which owns the strand and its queues, until it ends.
  void Shut(const std::shared_ptr<const void>& owner);

  // Blocks until it is ready, or `stop`, or until `end`. Returns whether it is ready. Lets timeouts
  // expire meanwhile.
  bool Wait(Clock::time_point end, const Atomic<bool>& stop);
  // Sets `stop` under the mutex: a `may_go_on` that is called later sees it.
  void Stop(Atomic<bool>& stop);

  // Returns a descriptor that is readable while the strand is ready, or a timeout has passed and no
  // drain is in progress. Throws std::system_error.
  int fd();

  // Something is pending and no drain is in progress.
  bool ready() const { return ready_; }

  // How it is drained.
  struct Drains {
    std::size_t pending = 0;  // of all queues
    int drainer = 0;          // the thread of the latest drain, or 0
    bool is_in_progress = false;
    bool is_awaited = false;          // a thread waits until it is ready
    Clock::time_point latest_at;      // when the latest one that is over ended
    Clock::time_point pending_since;  // when something became pending after nothing was
    bool is_shut = false;
  };
  Drains LookAtDrains() const;
  // Returns the callable that a drain is inside, if there is one. Throws std::bad_alloc.
  std::optional<Running> FindRunning() const;
  bool IsDrainedByThisThread();

  const std::string place;
  virtual bool IsDrainedByTasks() const { return false; }

 protected:
  // Called after something has been pushed, under no lock.
  virtual void AfterPush() {}
  // Called while a queue is closed, under no lock.
  virtual void AfterClose() {}
  // Called when nothing has been taken for long and no drain is in progress, under no lock. Returns
  // whether it has logged that.
  virtual bool LogUndrained(const Record& pushed, const Backlog& backlog) const;

 private:
  friend class Queue;

  // Destroys the callable that has closed its own queue, if any. Called by the drainer, under no
  // lock.
  void DestroyClosed();
  void EndInvocation() ZORVIX_REQUIRES(mutex_);
  void EndDrain(std::shared_ptr<const void>& kept) ZORVIX_REQUIRES(mutex_);
  // To be called after each change of what `ready_` depends on.
  void UpdateReadiness() ZORVIX_REQUIRES(mutex_);
  void SetReady(bool ready) ZORVIX_REQUIRES(mutex_);
  void SetTimer() ZORVIX_REQUIRES(mutex_);
  void ExpireTimeouts() ZORVIX_REQUIRES(mutex_);
  // At every so many pushes, looks how long nothing has been taken. No clock is read for most
  // messages, and no thread or timer is needed.
  void LookAtPending() ZORVIX_REQUIRES(mutex_);
  // To be called under no lock when a look has set `is_late_`. `pushed`: a handle with something
  // pending.
  void LogLate(const Record& pushed) noexcept;
  // Called under the mutex, so that the counter never shows an older number after a later one.
  void TracePending() const ZORVIX_REQUIRES(mutex_) {
    if (trace.IsOn()) SetCounter();
  }
  void SetCounter() const ZORVIX_REQUIRES(mutex_);

  const std::string counter_name_;
  mutable Mutex mutex_;
  Atomic<bool> ready_{false};  // written under the mutex
  Agenda agenda_ ZORVIX_GUARDED_BY(mutex_);
  Turn last_turn_ ZORVIX_GUARDED_BY(mutex_) = 0;
  std::size_t queues_ ZORVIX_GUARDED_BY(mutex_) = 0;
  std::size_t pending_ ZORVIX_GUARDED_BY(mutex_) = 0;              // of all queues
  Clock::time_point became_pending_at_ ZORVIX_GUARDED_BY(mutex_);  // when nothing else was
  bool shut_ ZORVIX_GUARDED_BY(mutex_) = false;
  std::size_t waiting_ ZORVIX_GUARDED_BY(mutex_) = 0;  // threads in Wait
  Condition became_ready_;
  Timeouts timeouts_ ZORVIX_GUARDED_BY(mutex_);
  std::unique_ptr<Descriptor> descriptor_ ZORVIX_GUARDED_BY(mutex_);

  // The drain in progress.
  bool draining_ ZORVIX_GUARDED_BY(mutex_) = false;
  int drainer_ ZORVIX_GUARDED_BY(mutex_) = 0;  // still known after the drain
  Clock::time_point drained_at_ ZORVIX_GUARDED_BY(mutex_);
  // The pushes since something was taken, or nothing was pending. Looks are at the second, fourth,
  // eighth and sixteenth push, and then at every sixteenth.
  struct Pushes {
    int until_look = 2;
    int looks = 0;
  };
  Pushes pushes_ ZORVIX_GUARDED_BY(mutex_);
  // Since when nothing has been taken, as far as the first look knew.
  Clock::time_point not_taken_since_ ZORVIX_GUARDED_BY(mutex_);
  bool is_late_logged_ ZORVIX_GUARDED_BY(mutex_) = false;  // since then
  std::atomic<bool> is_late_{false};
  Queue* invoking_ ZORVIX_GUARDED_BY(mutex_) = nullptr;
  std::shared_ptr<const void> kept_ ZORVIX_GUARDED_BY(mutex_);  // see Shut
  std::shared_ptr<Queue> closed_by_its_callable_;               // used by the drainer only

  int shutter_ ZORVIX_GUARDED_BY(mutex_) = 0;  // the thread in Shut
  // Threads in Close, which wait for invocations and Shut.
  std::size_t closing_ ZORVIX_GUARDED_BY(mutex_) = 0;
  Condition invocation_ended_;
};

// Throws std::invalid_argument for a depth of 0.
std::size_t CheckedDepth(KeepLast keep);

// What is pending for one handle, in a strand.
class Queue : public Receiver, public std::enable_shared_from_this<Queue> {
 public:
  Queue(const char* its_kind, const std::string& its_name, Module& its_module,
        std::shared_ptr<Strand> strand);
  ~Queue() override;

  // Discards what is pending and waits for an invocation on another thread. Then destroys the
  // callable, or leaves that to the drain, if the callable itself closes the queue. What is pushed
  // later is ignored.
  void Close() override;

  Strand& strand() const { return *strand_; }

 protected:
  // Takes the oldest pending message. Returns the turn of the next one, or 0 if there is none.
  virtual Turn Take() ZORVIX_REQUIRES(mutex_) = 0;
  // Invokes the callable with it, and destroys it. Called under no lock.
  virtual void InvokeTaken() = 0;
  // Removes all that is pending and destroys it. Called under no lock.
  virtual void Discard() = 0;
  virtual void DestroyCallable() = 0;

  // Whether another thread still uses what Close destroys, besides the drain and Shut.
  virtual bool IsUsedByOthers() const ZORVIX_REQUIRES(mutex_) { return false; }

  // For those who push or discard:
  bool IsClosed() const ZORVIX_REQUIRES(mutex_);
  // Give a turn to a message that is being pushed, in place of the oldest one or in addition.
  // `is_first`: nothing else is pending.
  Turn TakeTurn() noexcept ZORVIX_REQUIRES(mutex_);
  Turn AddTurn(bool is_first) noexcept ZORVIX_REQUIRES(mutex_);
  // For a queue whose pending messages are being removed, with the lowest of their turns.
  void RemoveTurns(Turn first, std::size_t count) noexcept ZORVIX_REQUIRES(mutex_);
  // Throws std::bad_alloc.
  Timeouts::iterator AddTimeout(Clock::time_point end, Timed& timed) ZORVIX_REQUIRES(mutex_);
  // The descriptor stays readable at its time until the next drain, or UpdateTimer.
  void RemoveTimeout(Timeouts::iterator timeout) noexcept ZORVIX_REQUIRES(mutex_);
  void UpdateTimer() noexcept ZORVIX_REQUIRES(mutex_);
  // Lets a thread in Close look again whether others still use the queue.
  void NotifyClosing() ZORVIX_REQUIRES(mutex_);
  // Counts a push that gets no turn, since one is pending that it replaces.
  void CountPush() noexcept ZORVIX_REQUIRES(mutex_);
  // Called under no lock, after a push that has a turn, or that has none.
  void AfterPush() const {
    LogIfLate();
    strand_->AfterPush();
  }
  void LogIfLate() const {
    if (strand_->is_late_.load(std::memory_order_relaxed)) strand_->LogLate(*this);
  }
  // Logs a WARN, unless `count` is 0.
  void LogDropped(std::size_t count) const;

  // Logs a std::exception that the function throws.
  template <typename Function>
  void Invoke(const Function& function) {
    try {
      const Measured measured(*this);
      function();
    } catch (const std::exception& error) {
      LogFailure(error);
    } catch (...) {
      KeepLoadedForException();
      throw;
    }
  }

 private:
  friend class Strand;
  bool IsInUse() const ZORVIX_REQUIRES(mutex_);
  // Returns false if it is still in use at `end`.
  bool WaitWhileInUse(Clock::time_point end);
  // Returns the thread for which Close waits, or 0 if it is not known.
  int ThreadInUse() const;
  void LogFailure(const std::exception& error) const;

  const std::shared_ptr<Strand> strand_;

 protected:
  Mutex& mutex_;  // of the strand

 private:
  bool closed_ ZORVIX_GUARDED_BY(mutex_) = false;
  bool is_being_discarded_ ZORVIX_GUARDED_BY(mutex_) = false;  // by Shut
};

inline void Strand::UpdateReadiness() {
  const bool ready = !agenda_.empty() && !draining_;
  if (ready != ready_.load(std::memory_order_relaxed)) SetReady(ready);
  if (descriptor_ != nullptr) SetTimer();
}

inline void Strand::EndInvocation() {
  invoking_ = nullptr;
  if (closing_ != 0) invocation_ended_.NotifyAll();
}

inline bool Queue::IsClosed() const {
  strand_->mutex_.AssertHeld();
  return closed_ || strand_->shut_;
}

inline void Queue::CountPush() noexcept {
  strand_->mutex_.AssertHeld();
  if (--strand_->pushes_.until_look == 0) strand_->LookAtPending();
}

inline Turn Queue::TakeTurn() noexcept {
  CountPush();
  strand_->mutex_.AssertHeld();
  return ++strand_->last_turn_;
}

inline Turn Queue::AddTurn(bool is_first) noexcept {
  const Turn turn = TakeTurn();
  strand_->mutex_.AssertHeld();
  if (++strand_->pending_ == 1) strand_->became_pending_at_ = CoarseNow();
  if (is_first) {
    strand_->agenda_.Add(turn, this);
    strand_->UpdateReadiness();
  }
  strand_->TracePending();
  return turn;
}

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_STRAND_H_
