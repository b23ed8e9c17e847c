#include "call_queue.h"

#include "message_queue.h"

namespace zorvix::detail {

void PendingCall::Settle(const Outcome& outcome) {
  if (!CallQueue::Claim(*this)) return;
  struct AtEnd {  // even if the answer cannot be written
    ~AtEnd() { call.queue_->EndSettling(call); }
    PendingCall& call;
  } const at_end{*this};
  WriteOutcome(slot_, outcome);
}

void PendingCall::Expire() {
  queue_->mutex_.AssertHeld();
  queue_->RemoveTimeout(*this);
  // Another thread may be settling it.
  if (queue_->IsClosed() || !CallQueue::Claim(*this)) return;
  WriteOutcome(slot_, NoAnswer(Why::TimedOut));
  queue_->AddAnswer(*this);
}

CallQueue::CallQueue(const Endpoint& endpoint, std::shared_ptr<Strand> strand, KeepLast keep)
    : Queue("Client", endpoint.name, endpoint.module, std::move(strand)),
      depth_(CheckedDepth(keep)) {}

bool CallQueue::Add(const std::shared_ptr<PendingCall>& call, std::optional<Clock::time_point> end,
                    ReplyOwner& reply) {
  bool is_first_drop = false;
  {
    const Lock lock(mutex_);
    if (IsClosed()) return true;
    const bool is_full = in_progress_.size() + answered_.size() >= depth_;
    if (spare_.empty()) spare_.emplace_back();
    if (end.has_value() && !is_full) call->timeout_ = AddTimeout(*end, *call);
    call->position_ = spare_.begin();
    *call->position_ = call;
    in_progress_.splice(in_progress_.end(), spare_, call->position_);
    if (!is_full) {
      reply = ReplyOwner(call);
      return true;
    }
    WriteOutcome(call->slot_, NoAnswer(Why::Dropped));
    AddAnswer(*call);
    ++dropped_;
    is_first_drop = ++dropped_in_a_row_ == 1;
  }
  if (is_first_drop) {
    BRIDGE_LOG(bridge::kLogWarn,
               "a client has too many calls and drops new ones, name: %s, module: %s, depth: %zu",
               name.c_str(), module, depth_);
  }
  AfterPush();
  return false;
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
    RemoveTimeout(call);
    if (IsClosed()) {
      late_.splice(late_.end(), in_progress_, call.position_);
      return;
    }
    AddAnswer(call);
  }
  AfterPush();
}

void CallQueue::AddAnswer(PendingCall& call) {
  answered_.splice(answered_.end(), in_progress_, call.position_);
  call.turn_ = AddTurn(answered_.size() == 1);
}

void CallQueue::RemoveTimeout(PendingCall& call) {
  if (!call.timeout_.has_value()) return;
  Queue::RemoveTimeout(*call.timeout_);
  call.timeout_.reset();
}

// Other threads may be settling calls that Discard could not claim.
bool CallQueue::IsUsedByOthers() const { return !in_progress_.empty(); }

Turn CallQueue::Take() {
  taken_ = std::move(answered_.front());
  caught_up_from_ = 0;
  if (spare_.size() < kMostSpare) {
    spare_.splice(spare_.end(), answered_, answered_.begin());
  } else {
    answered_.pop_front();
  }
  if (!answered_.empty()) return answered_.front()->turn_;
  if (in_progress_.empty()) caught_up_from_ = std::exchange(dropped_in_a_row_, 0);
  return 0;
}

void CallQueue::InvokeTaken() {
  const std::shared_ptr<PendingCall> call = std::move(taken_);
  struct AtEnd {  // even when it throws: the server's thread may still own the call
    ~AtEnd() { callable.Reset(); }
    Function<>& callable;
  } const at_end{call->callable_};
  LogDropped(caught_up_from_);
  Invoke([&] { call->callable_(); });
}

// Called when the client is destroyed, and when its inbox is. All calls are claimed before the
// first callable is destroyed: another thread that settled one meanwhile would need it after the
// client.
void CallQueue::Discard() {
  Calls discarded;
  std::size_t dropped = 0;
  {
    const Lock lock(mutex_);
    dropped = std::exchange(dropped_in_a_row_, 0);
    if (!answered_.empty()) RemoveTurns(answered_.front()->turn_, answered_.size());
    discarded.splice(discarded.end(), answered_);
    for (auto next = in_progress_.begin(); next != in_progress_.end();) {
      const auto position = next++;
      PendingCall& call = **position;
      const bool is_claimed = Claim(call);
      if (!is_claimed && call.owner_ != std::this_thread::get_id()) continue;
      // This thread may be settling the call, when the move of its answer destroys the client.
      call.is_abandoned_ = !is_claimed;
      RemoveTimeout(call);
      discarded.splice(discarded.end(), in_progress_, position);
    }
    UpdateTimer();
  }
  LogDropped(dropped);
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
  return {answered_.size(), depth_, dropped_};
}

}  // namespace zorvix::detail
