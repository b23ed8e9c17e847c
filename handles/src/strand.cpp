#include "strand.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <utility>

#include "waits.h"

namespace zorvix::detail {

Strand::Strand(const std::string& its_place, const std::string& counter, Module& module)
    : place(its_place),
      counter_name_(counter.empty() ? counter : "pending " + counter + ", " + ModuleName(module)) {}

Strand::~Strand() = default;

std::size_t Strand::Drain(const std::function<bool()>& may_go_on) {
  std::shared_ptr<const void> kept;  // released when the mutex is not held any more
  Lock lock(mutex_);
  if (draining_) return 0;
  draining_ = true;
  drainer_ = ThisThread();
  ExpireTimeouts();
  UpdateReadiness();
  const Turn last = last_turn_;  // what arrives meanwhile is left to the next drain
  std::size_t count = 0;
  // The condition is tested before a message is taken, so no message has to be put back.
  while (!agenda_.empty() && agenda_.front().turn <= last && (!may_go_on || may_go_on())) {
    Queue& queue = *agenda_.front().queue;
    queue.mutex_.AssertHeld();
    if (const Turn next = queue.Take()) {
      agenda_.PostponeFront(next);
    } else {
      agenda_.PopFront();
    }
    --pending_;
    pushes_ = {};
    ++count;
    invoking_ = &queue;
    TracePending();
    lock.Unlock();
    try {
      queue.InvokeTaken();
    } catch (...) {
      DestroyClosed();
      lock.Relock();
      EndInvocation();
      EndDrain(kept);
      throw;
    }
    if (closed_by_its_callable_ != nullptr) DestroyClosed();
    lock.Relock();
    EndInvocation();
  }
  EndDrain(kept);
  return count;
}

void Strand::DestroyClosed() {
  if (closed_by_its_callable_ == nullptr) return;
  const auto closed = std::move(closed_by_its_callable_);
  closed->DestroyCallable();
}

void Strand::EndDrain(std::shared_ptr<const void>& kept) {
  draining_ = false;
  drained_at_ = CoarseNow();
  kept.swap(kept_);
  UpdateReadiness();
}

void Strand::Shut(const std::shared_ptr<const void>& owner) {
  while (true) {
    std::shared_ptr<Queue> queue;
    {
      const Lock lock(mutex_);
      shut_ = true;
      if (draining_ && drainer_ == ThisThread()) kept_ = owner;
      if (agenda_.empty()) return;
      queue = agenda_.front().queue->shared_from_this();
      queue->mutex_.AssertHeld();
      queue->is_being_discarded_ = true;
      shutter_ = ThisThread();
    }
    queue->Discard();
    const Lock lock(mutex_);
    queue->mutex_.AssertHeld();
    queue->is_being_discarded_ = false;
    queue->NotifyClosing();
  }
}

bool Strand::Wait(Clock::time_point end, const Atomic<bool>& stop) {
  Lock lock(mutex_);
  ++waiting_;
  bool is_over = false;
  while (!ready_ && !stop && !is_over) {
    const auto until = timeouts_.empty() ? end : std::min(end, timeouts_.begin()->first);
    if (became_ready_.WaitUntil(lock, until)) continue;
    ExpireTimeouts();
    is_over = until == end;
  }
  --waiting_;
  return ready_;
}

void Strand::Stop(Atomic<bool>& stop) {
  const Lock lock(mutex_);
  stop = true;
  became_ready_.NotifyAll();
}

int Strand::fd() {
  const Lock lock(mutex_);
  if (descriptor_ == nullptr) {
    descriptor_ = std::make_unique<Descriptor>(ready_);
    SetTimer();
  }
  return descriptor_->fd();
}

// While a drain is in progress, no timeout makes the descriptor readable.
void Strand::SetTimer() {
  descriptor_->SetTimer(timeouts_.empty() || draining_ ? kNever : timeouts_.begin()->first);
}

void Strand::ExpireTimeouts() {
  if (timeouts_.empty()) return;
  const auto now = Clock::now();
  while (!timeouts_.empty() && timeouts_.begin()->first <= now) timeouts_.begin()->second->Expire();
}

Strand::Drains Strand::LookAtDrains() const {
  const Lock lock(mutex_);
  return {pending_, drainer_, draining_, waiting_ != 0, drained_at_, became_pending_at_, shut_};
}

std::optional<Running> Strand::FindRunning() const {
  const Lock lock(mutex_);
  if (invoking_ == nullptr) return std::nullopt;
  return Running(*invoking_, drainer_);
}

void Strand::LookAtPending() {
  const auto now = CoarseNow();
  if (pushes_.looks++ == 0) {
    // When a drain has taken something is not known exactly: then the time counts from now.
    const bool has_been_drained = draining_ || drained_at_ > became_pending_at_;
    not_taken_since_ = has_been_drained ? now : became_pending_at_;
    is_late_logged_ = false;
  }
  pushes_.until_look = 1 << std::min(pushes_.looks, 4);
  const std::chrono::seconds patience(IsDrainedByTasks() ? 1 : 10);
  if (!is_late_logged_ && now - not_taken_since_ >= patience) is_late_ = true;
}

void Strand::LogLate(const Record& pushed) noexcept {
  if (!is_late_.exchange(false)) return;
  try {
    Backlog backlog;
    std::optional<Running> running;
    {
      const Lock lock(mutex_);
      if (pushes_.looks == 0 || is_late_logged_) return;
      is_late_logged_ = true;  // meanwhile
      backlog = {pending_, drainer_, not_taken_since_, CoarseNow() - not_taken_since_};
      if (invoking_ != nullptr) running.emplace(*invoking_, drainer_);
    }
    const bool is_logged = running ? LogRunning(*running, backlog) : LogUndrained(pushed, backlog);
    if (is_logged) return;
    const Lock lock(mutex_);
    is_late_logged_ = false;
  } catch (const std::bad_alloc&) {  // the next one tries again
  }
}

bool Strand::LogUndrained(const Record& pushed, const Backlog& backlog) const {
  LogUndrainedInbox(place, pushed, backlog);
  return true;
}

bool Strand::IsDrainedByThisThread() {
  const Lock lock(mutex_);
  return draining_ && drainer_ == ThisThread();
}

void Strand::SetReady(bool ready) {
  ready_.store(ready, std::memory_order_release);
  if (ready && waiting_ != 0) became_ready_.NotifyAll();
  if (descriptor_ != nullptr) descriptor_->SetReady(ready);
}

void Strand::SetCounter() const {
  if (trace.set_counter == nullptr || counter_name_.empty()) return;
  trace.set_counter(counter_name_.c_str(), static_cast<std::int64_t>(pending_));
}

std::size_t CheckedDepth(KeepLast keep) {
  if (keep.depth == 0) throw std::invalid_argument("the depth of a queue must be at least 1");
  return keep.depth;
}

Queue::Queue(const char* its_kind, const std::string& its_name, Module& its_module,
             std::shared_ptr<Strand> strand)
    : Receiver(its_kind, its_name, its_module),
      strand_(std::move(strand)),
      mutex_(strand_->mutex_) {
  Record::strand = strand_.get();
  invoker = strand_->IsDrainedByTasks() ? Invoker::kTask : Invoker::kDrain;
  const Lock lock(strand_->mutex_);
  strand_->agenda_.Reserve(strand_->queues_ + 1);
  ++strand_->queues_;
}

Queue::~Queue() {
  const Lock lock(strand_->mutex_);
  --strand_->queues_;
}

void Queue::RemoveTurns(Turn first, std::size_t count) noexcept {
  if (count == 0) return;
  strand_->mutex_.AssertHeld();
  strand_->agenda_.Remove(first);
  strand_->pending_ -= count;
  if (strand_->pending_ == 0) strand_->pushes_ = {};
  strand_->UpdateReadiness();
  strand_->TracePending();
}

Timeouts::iterator Queue::AddTimeout(Clock::time_point end, Timed& timed) {
  strand_->mutex_.AssertHeld();
  const auto added = strand_->timeouts_.emplace(end, &timed);
  if (added == strand_->timeouts_.begin()) {
    if (strand_->waiting_ != 0) strand_->became_ready_.NotifyAll();
    strand_->UpdateReadiness();
  }
  return added;
}

void Queue::RemoveTimeout(Timeouts::iterator timeout) noexcept {
  strand_->mutex_.AssertHeld();
  strand_->timeouts_.erase(timeout);
}

void Queue::UpdateTimer() noexcept {
  strand_->mutex_.AssertHeld();
  strand_->UpdateReadiness();
}

void Queue::NotifyClosing() {
  strand_->mutex_.AssertHeld();
  if (strand_->closing_ != 0) strand_->invocation_ended_.NotifyAll();
}

void Queue::Close() {
  {
    const Lock lock(mutex_);
    closed_ = true;
  }
  Discard();
  strand_->AfterClose();
  if (!WaitWhileInUse(Clock::time_point())) {
    WaitAndLog(
        kNever, [this](Clock::time_point until) { return WaitWhileInUse(until); },
        [this](int seconds, auto) { LogWaitingDestructor(*this, ThreadInUse(), seconds); });
  }
  {
    const Lock lock(mutex_);
    strand_->mutex_.AssertHeld();
    if (strand_->invoking_ == this) {  // by this thread
      strand_->closed_by_its_callable_ = shared_from_this();
      return;
    }
  }
  DestroyCallable();
}

bool Queue::IsInUse() const {
  strand_->mutex_.AssertHeld();
  return (strand_->invoking_ == this && strand_->drainer_ != ThisThread()) ||
         (is_being_discarded_ && strand_->shutter_ != ThisThread()) || IsUsedByOthers();
}

int Queue::ThreadInUse() const {
  const Lock lock(mutex_);
  strand_->mutex_.AssertHeld();
  if (strand_->invoking_ == this) return strand_->drainer_;
  return is_being_discarded_ ? strand_->shutter_ : 0;
}

bool Queue::WaitWhileInUse(Clock::time_point end) {
  Lock lock(mutex_);
  strand_->mutex_.AssertHeld();
  ++strand_->closing_;
  bool is_late = false;
  while (IsInUse() && !is_late) is_late = !strand_->invocation_ended_.WaitUntil(lock, end);
  --strand_->closing_;
  return !IsInUse();
}

void Queue::LogDropped(std::size_t count) const {
  if (count == 0) return;
  BRIDGE_LOG(bridge::kLogWarn,
             "a queue has dropped messages, kind: %s, name: %s, module: %s, dropped: %zu", kind,
             name.c_str(), module, count);
}

void Queue::LogFailure(const std::exception& error) const {
  BRIDGE_LOG(bridge::kLogError, "callable failed! error: %s, name: %s", error.what(), name.c_str());
}

}  // namespace zorvix::detail
