// Lets a thread wait for the answer of a call.
#ifndef ZORVIX_HANDLES_WAITING_REPLY_H_
#define ZORVIX_HANDLES_WAITING_REPLY_H_

#include <memory>

#include "reply.h"
#include "sync.h"

namespace zorvix::detail {

// Another thread writes the answer into the waiting thread's slot.
class WaitingReply final : public SharedReply {
 public:
  explicit WaitingReply(const AnswerSlot& slot) : slot_(slot) {}

  void Settle(const Outcome& outcome) override {
    {
      const Lock lock(mutex_);
      if (state_ != State::kWaiting) return;
      state_ = State::kSettling;
    }
    struct AtEnd {  // even if the answer cannot be written
      ~AtEnd() {
        const Lock lock(reply.mutex_);
        reply.state_ = State::kSettled;
        reply.settled_.NotifyAll();
      }
      WaitingReply& reply;
    } const at_end{*this};
    WriteOutcome(slot_, outcome);
  }

  // When it has returned, nobody writes into the slot any more.
  void Wait(Clock::time_point end) {
    Lock lock(mutex_);
    bool is_over = false;
    while (state_ == State::kWaiting && !is_over) is_over = !settled_.WaitUntil(lock, end);
    if (state_ == State::kWaiting) {
      state_ = State::kAbandoned;
      WriteOutcome(slot_, NoAnswer(Why::TimedOut));
    }
    while (state_ == State::kSettling) settled_.Wait(lock);
  }

 private:
  enum class State { kWaiting, kSettling, kSettled, kAbandoned };
  const AnswerSlot slot_;
  Mutex mutex_;
  Condition settled_;
  State state_ ZORVIX_GUARDED_BY(mutex_) = State::kWaiting;
};

// The offer of a thread that waits for the answer.
class WaitingOffer final : public Offer {
 public:
  WaitingOffer(const AnswerType& its_type, const AnswerSlot& slot)
      : Offer(its_type, true), slot_(slot) {}
  // After an exception, the server may still have the reply.
  ~WaitingOffer() { Wait(Clock::time_point()); }
  WaitingOffer(const WaitingOffer&) = delete;
  WaitingOffer& operator=(const WaitingOffer&) = delete;

  void Wait(Clock::time_point end) const {
    if (reply_ != nullptr) reply_->Wait(end);
  }

 private:
  void Write(const Outcome& outcome) override { WriteOutcome(slot_, outcome); }
  ReplyOwner Share() override {
    reply_ = std::make_shared<WaitingReply>(slot_);
    return ReplyOwner(reply_);
  }

  const AnswerSlot slot_;
  std::shared_ptr<WaitingReply> reply_;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_WAITING_REPLY_H_
