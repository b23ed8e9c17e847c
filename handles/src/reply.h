// Where the answer of a call goes.
//
// A client passes the address of an Offer in the response of its request. A server handle finds it
// there: a direct one settles the offer's reply, any other takes a reply along with the request. A
// server without a handle overwrites the response.
#ifndef ZORVIX_HANDLES_REPLY_H_
#define ZORVIX_HANDLES_REPLY_H_

#include <zorvix/detail/erasure.h>

#include <memory>
#include <utility>

namespace zorvix::detail {

// A reply that a client and a pending request share. It is settled once: later settlements do
// nothing, and one without a function settles it without an answer.
class SharedReply : public Reply {
 public:
  virtual ~SharedReply() = default;
};

// Settles a reply when it is destroyed, wherever that is: with the request in which it is pending,
// or on the stack of a caller whose server was not there.
class ReplyOwner {
 public:
  ReplyOwner() = default;
  explicit ReplyOwner(std::shared_ptr<SharedReply> reply) : reply_(std::move(reply)) {}
  ~ReplyOwner() {
    if (reply_ != nullptr) Reset();
  }
  ReplyOwner(ReplyOwner&&) noexcept = default;
  ReplyOwner& operator=(ReplyOwner&& other) noexcept {
    if (reply_ != nullptr) Reset();
    reply_ = std::move(other.reply_);
    return *this;
  }
  Reply* get() const { return reply_.get(); }
  // There must be a reply.
  void Reset() {
    const auto reply = std::move(reply_);
    reply->Settle(nullptr, nullptr);
  }

 private:
  std::shared_ptr<SharedReply> reply_;  // null: the answer is not wanted any more
};

// Writes the answer directly. Without a slot, it is not wanted any more.
class ImmediateReply final : public Reply {
 public:
  explicit ImmediateReply(const AnswerSlot& slot) : slot_(slot) {}
  void Settle(void (*write)(const AnswerSlot&, void*), void* answer) override {
    if (slot_.optional != nullptr || slot_.any != nullptr) write(slot_, answer);
  }

 private:
  const AnswerSlot slot_;
};

// Exists on the stack of the client during the call, or in the queued call.
class Offer {
 public:
  Offer(const AnswerType& its_type, void* optional, bool its_caller_waits)
      : type(its_type), caller_waits(its_caller_waits), immediate_({optional, nullptr}) {}
  Offer(const Offer&) = delete;
  Offer& operator=(const Offer&) = delete;
  // For a server that answers on the caller's thread.
  virtual Reply& reply() { return immediate_; }
  // For a server that answers later. Only that of a Sync service does.
  virtual ReplyOwner Take() { return {}; }

  const AnswerType& type;
  const bool caller_waits;  // on the calling thread

 protected:
  ~Offer() = default;

 private:
  ImmediateReply immediate_;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_REPLY_H_
