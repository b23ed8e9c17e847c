#include "call_queue.h"

namespace zorvix::detail {

void PendingCall::Settle(void (*write)(const AnswerSlot&, void*), void* answer) {
  if (!CallQueue::Claim(*this)) return;
  struct AtEnd {  // even if the answer cannot be written
    ~AtEnd() { call.queue_->EndSettling(call); }
    PendingCall& call;
  } const at_end{*this};
  if (write != nullptr) write(slot_, answer);
}

ReplyOwner CallQueue::Add(std::shared_ptr<PendingCall> call) {
  const Lock lock(mutex_);
  if (IsClosed()) return {};
  if (spare_.empty()) spare_.emplace_back();
  call->position_ = spare_.begin();
  *call->position_ = call;
  in_progress_.splice(in_progress_.end(), spare_, call->position_);
  return ReplyOwner(std::move(call));
}

bool CallQueue::Claim(PendingCall& call) {
  auto nobody = std::thread::id();
  return call.owner_.compare_exchange_strong(nobody, std::this_thread::get_id());
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
    if (IsClosed()) {
      late_.splice(late_.end(), in_progress_, call.position_);
      return;
    }
    answered_.splice(answered_.end(), in_progress_, call.position_);
    call.turn_ = AddTurn(answered_.size() == 1);
  }
  AfterPush();
}

// Other threads may be settling calls that Discard could not claim.
bool CallQueue::IsUsedByOthers() const { return !in_progress_.empty(); }

Turn CallQueue::Take() {
  taken_ = std::move(answered_.front());
  if (spare_.size() < kMostSpare) {
    spare_.splice(spare_.end(), answered_, answered_.begin());
  } else {
    answered_.pop_front();
  }
  return answered_.empty() ? 0 : answered_.front()->turn_;
}

void CallQueue::InvokeTaken() {
  const std::shared_ptr<PendingCall> call = std::move(taken_);
  struct AtEnd {  // even when it throws: the server's thread may still own the call
    ~AtEnd() { callable.Reset(); }
    Function<>& callable;
  } const at_end{call->callable_};
  Invoke([&] { call->callable_(); });
}

// Called when the client is destroyed, and when its inbox is. All calls are claimed before the
// first callable is destroyed: another thread that settled one meanwhile would need it after the
// client.
void CallQueue::Discard() {
  Calls discarded;
  {
    const Lock lock(mutex_);
    if (!answered_.empty()) RemoveTurns(answered_.front()->turn_, answered_.size());
    discarded.splice(discarded.end(), answered_);
    for (auto next = in_progress_.begin(); next != in_progress_.end();) {
      const auto position = next++;
      PendingCall& call = **position;
      const bool is_claimed = Claim(call);
      if (!is_claimed && call.owner_ != std::this_thread::get_id()) continue;
      // This thread may be settling the call, when the move of its answer destroys the client.
      call.is_abandoned_ = !is_claimed;
      discarded.splice(discarded.end(), in_progress_, position);
    }
  }
  for (const auto& call : discarded) {
    if (!call->is_abandoned_) call->callable_.Reset();
  }
}

// The queue is closed, and no thread settles a call any more.
void CallQueue::DestroyCallable() {
  Calls late;
  {
    const Lock lock(mutex_);
    late.swap(late_);
  }
  for (const auto& call : late) call->callable_.Reset();
}

Counts CallQueue::Count() const {
  const Lock lock(mutex_);
  return {answered_.size(), 0, 0};
}

}  // namespace zorvix::detail
