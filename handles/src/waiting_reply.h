// Lets a thread wait for the answer of a call.
#ifndef ZORVIX_HANDLES_WAITING_REPLY_H_
#define ZORVIX_HANDLES_WAITING_REPLY_H_

#include <list>
#include <memory>
#include <string>
#include <utility>

#include "records.h"
#include "reply.h"
#include "sync.h"
#include "threads.h"
#include "waits.h"

namespace zorvix::detail {

// Another thread writes the answer into the waiting thread's slot.
class WaitingReply final : public SharedReply {
 public:
  WaitingReply(const AnswerSlot& slot, std::string its_service, const Record* its_client,
               const Record* its_server)
      : service(std::move(its_service)), client(its_client), server(its_server), slot_(slot) {}

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
    const Shown shown(*this);
    WaitAndLog(
        end, [this](Clock::time_point until) { return WaitUntil(until); },
        [this](int seconds, auto start) { LogWaitingCall(*this, seconds, start); });
    Lock lock(mutex_);
    if (state_ == State::kWaiting) {
      state_ = State::kAbandoned;
      WriteOutcome(slot_, NoAnswer(Why::TimedOut));
    }
    while (state_ == State::kSettling) settled_.Wait(lock);
  }

  const std::string service;
  // Only compared, since they may be destroyed meanwhile.
  const Record* const client;  // null if it has no handle
  const Record* const server;
  // To be called under the mutex of the process:
  int thread() const { return thread_; }
  Clock::time_point since() const { return since_; }

 private:
  enum class State { kWaiting, kSettling, kSettled, kAbandoned };

  // Returns whether the call is settled, or is being settled.
  bool WaitUntil(Clock::time_point end) {
    Lock lock(mutex_);
    bool is_over = false;
    while (state_ == State::kWaiting && !is_over) is_over = !settled_.WaitUntil(lock, end);
    return state_ != State::kWaiting;
  }

  // Has the reply in the list of waits of the process.
  class Shown {
   public:
    explicit Shown(WaitingReply& reply) : reply_(reply) {
      Process& process = Process::Get();
      const Lock lock(process.mutex);
      reply.thread_ = ThisThread();
      reply.since_ = CoarseNow();
      process.waits.splice(process.waits.end(), reply.element_);
    }
    ~Shown() {
      Process& process = Process::Get();
      const Lock lock(process.mutex);
      reply_.element_.splice(reply_.element_.end(), process.waits, reply_.position_);
    }
    Shown(const Shown&) = delete;
    Shown& operator=(const Shown&) = delete;

   private:
    WaitingReply& reply_;
  };

  // Of that list, so that a wait needs no memory.
  std::list<const WaitingReply*> element_{this};
  const std::list<const WaitingReply*>::iterator position_ = element_.begin();
  int thread_ = 0;
  Clock::time_point since_;
  const AnswerSlot slot_;
  Mutex mutex_;
  Condition settled_;
  State state_ ZORVIX_GUARDED_BY(mutex_) = State::kWaiting;
};

// The offer of a thread that waits for the answer.
class WaitingOffer final : public Offer {
 public:
  // `its_client` is null if it has no handle.
  WaitingOffer(const AnswerType& its_type, const AnswerSlot& slot, const std::string& service,
               const Record* its_client)
      : Offer(its_type, its_client == nullptr ? nullptr : its_client->module, Caller::kWaits),
        slot_(slot),
        service_(service),
        client_(its_client) {}
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
    reply_ = std::make_shared<WaitingReply>(slot_, service_, client_, server);
    return ReplyOwner(reply_);
  }

  const AnswerSlot slot_;
  const std::string& service_;  // exists until Share
  const Record* const client_;
  std::shared_ptr<WaitingReply> reply_;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_WAITING_REPLY_H_
