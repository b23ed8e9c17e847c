// Where the answer of a call goes.
//
// A client passes the address of an Offer in the response of its request. A server handle finds it
// there: a direct one settles the offer, any other takes a reply along with the request. A server
// without a handle overwrites the response.
#ifndef ZORVIX_HANDLES_REPLY_H_
#define ZORVIX_HANDLES_REPLY_H_

#include <zorvix/answer.h>
#include <zorvix/detail/erasure.h>

#include <memory>
#include <utility>

namespace zorvix::detail {

struct Record;

// Throws what moving the answer throws: the slot then says so.
inline void WriteOutcome(const AnswerSlot& slot, const Outcome& outcome) {
  if (slot.why != nullptr) *slot.why = outcome.write == nullptr ? outcome.why : Why::Threw;
  if (outcome.write != nullptr) outcome.write(slot, outcome.answer);
}

// A reply that a client and a pending request share. It is settled once: later settlements do
// nothing.
class SharedReply : public ReplyTarget {
 public:
  virtual ~SharedReply() = default;
};

// Settles a reply when it is destroyed, wherever that is: with the request in which it is pending,
// or with the last copy of a zorvix::Reply.
class ReplyOwner {
 public:
  ReplyOwner() = default;
  explicit ReplyOwner(std::shared_ptr<SharedReply> reply) : reply_(std::move(reply)) {}
  ~ReplyOwner() {
    if (reply_ != nullptr) Fail(Why::Destroyed);
  }
  ReplyOwner(ReplyOwner&&) noexcept = default;
  ReplyOwner& operator=(ReplyOwner&& other) noexcept {
    if (reply_ != nullptr) Fail(Why::Destroyed);
    reply_ = std::move(other.reply_);
    return *this;
  }

  bool IsWanted() const { return reply_ != nullptr; }
  void Settle(const Outcome& outcome) const {
    if (reply_ != nullptr) reply_->Settle(outcome);
  }
  // Gives up the reply.
  void Fail(Why why) {
    if (const auto reply = std::move(reply_)) reply->Settle(NoAnswer(why));
  }

 private:
  std::shared_ptr<SharedReply> reply_;  // null: the answer is not wanted any more
};

// What the copies of a zorvix::Reply share.
class LaterReply final : public ReplyTarget {
 public:
  explicit LaterReply(ReplyOwner reply) : reply_(std::move(reply)) {}
  void Settle(const Outcome& outcome) override { reply_.Settle(outcome); }

 private:
  const ReplyOwner reply_;
};

// The reply to a request that has been pending.
class RequestReply final : public CurrentReply {
 public:
  explicit RequestReply(ReplyOwner& owner) : owner_(owner) {}
  void Settle(const Outcome& outcome) override { owner_.Settle(outcome); }
  std::shared_ptr<ReplyTarget> Keep() override {
    return std::make_shared<LaterReply>(std::move(owner_));
  }

 private:
  ReplyOwner& owner_;
};

enum class Caller { kWaits, kContinues };

// Exists on the stack of the client during the call, or in the queued call. Used by the calling
// thread only.
class Offer : public CurrentReply {
 public:
  Offer(const AnswerType& its_type, const char* its_client, Caller its_caller)
      : type(its_type), client(its_client), caller(its_caller) {}
  Offer(const Offer&) = delete;
  Offer& operator=(const Offer&) = delete;

  // Only the first of what follows has an effect.
  void Settle(const Outcome& outcome) final {
    if (!std::exchange(is_used_, true)) Write(outcome);
  }
  ReplyOwner Take() {
    is_used_ = true;
    return Share();
  }
  std::shared_ptr<ReplyTarget> Keep() final { return std::make_shared<LaterReply>(Take()); }

  const AnswerType& type;
  const char* const client;        // its module, or null if it has no handle
  const Caller caller;             // this thread
  const Record* server = nullptr;  // the handle that has got the offer, if any. Only compared.

 protected:
  ~Offer() = default;

 private:
  virtual void Write(const Outcome& outcome) = 0;
  // Returns a reply with which the server answers later.
  virtual ReplyOwner Share() = 0;

  bool is_used_ = false;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_REPLY_H_
