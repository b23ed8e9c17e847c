#include "call_queue.h"

namespace zorvix::detail {

void PendingCall::Settle(const Outcome& outcome) {
  if (!CallQueue::Claim(*this)) return;
  struct AtEnd {  // even if the answer cannot be written
    ~AtEnd() { call.queue_->EndSettling(call); }
    PendingCall& call;
  } const at_end{*this};
  Write(outcome);
}

void PendingCall::Write(const Outcome& outcome) {
  WriteOutcome(callable_.answer(), outcome);
  if (outcome.write != nullptr) queue_->received.Add();
}

void PendingCall::Expire() {
  queue_->mutex_.AssertHeld();
  queue_->RemoveTimeout(*this);
  // Another thread may be settling it.
  if (queue_->IsClosed() || !CallQueue::Claim(*this)) return;
  Write(NoAnswer(Why::TimedOut));
  queue_->in_progress_.Remove(*this);
  queue_->AddAnswer(*this);
}

inline void CallList::Add(PendingCall& call) noexcept {
  call.previous_ = last_;
  call.next_ = nullptr;
  (last_ == nullptr ? first_ : last_->next_) = &call;
  last_ = &call;
  ++size_;
}

inline void CallList::Remove(PendingCall& call) noexcept {
  (call.previous_ == nullptr ? first_ : call.previous_->next_) = call.next_;
  (call.next_ == nullptr ? last_ : call.next_->previous_) = call.previous_;
  --size_;
}

CallQueue::CallQueue(const Endpoint& endpoint, std::shared_ptr<Strand> strand, KeepLast keep)
    : Queue("Client", endpoint.name, endpoint.module, std::move(strand)),
      depth_(CheckedDepth(keep)) {}

bool CallQueue::Add(Function<>&& callable, Clock::time_point end, ReplyOwner& reply) {
  std::shared_ptr<PendingCall> call;
  const Added added = AddInProgress(call);
  if (added == Added::kClosed) return true;
  if (added == Added::kFull) {
    Drop(std::move(callable));
    return false;
  }
  call->callable_ = std::move(callable);  // under no lock
  call->owner_.store(Thread::id(), std::memory_order_release);
  PendingCall& its_call = *call;
  reply = ReplyOwner(std::move(call));
  if (end != kNever) {
    const Lock lock(mutex_);
    if (IsClosed()) return true;  // meanwhile, which may have discarded the call
    its_call.timeout_ = AddTimeout(end, its_call);
    its_call.has_timeout_ = true;
  }
  return true;
}

// This thread is the owner of the call, which has no callable yet.
CallQueue::Added CallQueue::AddInProgress(std::shared_ptr<PendingCall>& call) {
  const Lock lock(mutex_);
  if (IsClosed()) return Added::kClosed;
  if (in_progress_.size() + answered_.size() >= depth_) return Added::kFull;
  if (spare_.size() == 0) {
    call = std::make_shared<PendingCall>(Self());
  } else {
    call = std::move(spare_.first()->self_);
    spare_.Remove(*call);
  }
  call->owner_.store(this_thread::get_id(), std::memory_order_relaxed);
  call->self_ = call;
  in_progress_.Add(*call);
  return Added::kYes;
}

void CallQueue::Drop(Function<>&& callable) {
  const auto call = std::make_shared<PendingCall>(Self());
  call->callable_ = std::move(callable);
  call->Write(NoAnswer(Why::Dropped));
  bool is_line_due = false;
  {
    const Lock lock(mutex_);
    if (IsClosed()) return;
    call->self_ = call;
    AddAnswer(*call);
    is_line_due = drops_.Add();
  }
  if (is_line_due) {
    BRIDGE_LOG(bridge::kLogWarn,
               "a client has too many calls and drops new ones, name: %s, module: %s, depth: %zu",
               name.c_str(), module, depth_);
  }
  AfterPush();
}

bool CallQueue::Claim(PendingCall& call) {
  auto nobody = Thread::id();
  return call.owner_.compare_exchange_strong(nobody, this_thread::get_id());
}

// The callable is invoked in a drain, or if the queue or its strand is closed, is destroyed when
// the client is.
void CallQueue::EndSettling(PendingCall& call) {
  if (call.is_abandoned_) {
    call.callable_.Reset();
    return;
  }
  {
    const Lock lock(mutex_);
    NotifyClosing();
    RemoveTimeout(call);
    in_progress_.Remove(call);
    if (IsClosed()) {
      late_.Add(call);
      return;
    }
    AddAnswer(call);
  }
  AfterPush();
}

void CallQueue::AddAnswer(PendingCall& call) {
  call.turn_ = AddTurn(answered_.size() == 0);
  answered_.Add(call);
}

void CallQueue::RemoveTimeout(PendingCall& call) {
  if (std::exchange(call.has_timeout_, false)) Queue::RemoveTimeout(call.timeout_);
}

// Other threads may be settling calls that Discard could not claim.
bool CallQueue::IsUsedByOthers() const { return in_progress_.size() != 0; }

Turn CallQueue::Take() {
  if (unused_ != nullptr && spare_.size() < kMostSpare) {
    spare_.Add(*unused_);
    unused_->self_ = std::move(unused_);
  }
  PendingCall& first = *answered_.first();
  answered_.Remove(first);
  taken_ = std::move(first.self_);
  dropped_to_log_ = 0;
  if (answered_.size() != 0) return answered_.first()->turn_;
  if (in_progress_.size() == 0) dropped_to_log_ = drops_.CatchUp();
  return 0;
}

void CallQueue::InvokeTaken() {
  struct AtEnd {  // even when it throws
    ~AtEnd() {
      queue.taken_->callable_.Reset();
      // The server may still have the call.
      if (queue.taken_.use_count() == 1) queue.unused_ = std::move(queue.taken_);
      queue.taken_.reset();
    }
    CallQueue& queue;
  } const at_end{*this};
  LogDropped(dropped_to_log_);
  Invoke([this] { taken_->callable_(); });
}

// Called when the client is destroyed, and when its inbox is. All calls are claimed before the
// first callable is destroyed: another thread that settled one meanwhile would need it after the
// client.
void CallQueue::Discard() {
  CallList discarded;
  std::size_t dropped = 0;
  {
    const Lock lock(mutex_);
    dropped = drops_.End();
    if (answered_.size() != 0) RemoveTurns(answered_.first()->turn_, answered_.size());
    std::swap(discarded, answered_);
    for (PendingCall* next = in_progress_.first(); next != nullptr;) {
      PendingCall& call = *std::exchange(next, CallList::Next(*next));
      const bool is_claimed = Claim(call);
      if (!is_claimed && call.owner_ != this_thread::get_id()) continue;
      // This thread may be settling the call, when the move of its answer destroys the client.
      call.is_abandoned_ = !is_claimed;
      RemoveTimeout(call);
      in_progress_.Remove(call);
      discarded.Add(call);
    }
    UpdateTimer();
  }
  LogDropped(dropped);
  Destroy(discarded);
}

// The queue is closed, and no thread settles a call any more.
void CallQueue::DestroyCallable() {
  CallList late;
  CallList spare;
  {
    const Lock lock(mutex_);
    std::swap(late, late_);
    std::swap(spare, spare_);
  }
  unused_.reset();
  Destroy(late);
  Destroy(spare);
}

void CallQueue::Destroy(CallList& calls) {
  while (calls.size() != 0) {
    const auto call = std::move(calls.first()->self_);
    calls.Remove(*call);
    if (!call->is_abandoned_) call->callable_.Reset();
  }
}

Counts CallQueue::Count() const {
  const Lock lock(mutex_);
  return {answered_.size(), depth_, drops_.total()};
}

}  // namespace zorvix::detail
