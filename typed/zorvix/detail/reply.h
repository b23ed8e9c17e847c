// Where the answer of a call goes when the server has an inbox. Not for users.
//
// A client passes the address of an AnyReplyOffer in the response. A server with an inbox finds it
// there and takes the reply along with the request. Every other server overwrites the response.
#ifndef ZORVIX_DETAIL_REPLY_H_
#define ZORVIX_DETAIL_REPLY_H_

#include <zorvix/detail/endpoint.h>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

template <typename Response>
class Reply {
 public:
  Reply() = default;
  virtual ~Reply() = default;
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;
  virtual void Answer(Response response) = 0;
  // Called once, at the end. If there is no answer by then, the answer is none.
  virtual void Finish() = 0;
};

// Finishes a reply when it is destroyed, wherever that is: with the request in which it is pending,
// or on the stack of a caller whose server was not there.
template <typename Response>
class ReplyOwner {
 public:
  ReplyOwner() = default;
  explicit ReplyOwner(std::shared_ptr<Reply<Response>> reply) : reply_(std::move(reply)) {}
  ~ReplyOwner() {
    if (reply_ != nullptr) reply_->Finish();
  }
  ReplyOwner(ReplyOwner&&) noexcept = default;
  ReplyOwner& operator=(ReplyOwner&&) = delete;
  void Answer(Response response) const {
    if (reply_ != nullptr) reply_->Answer(std::move(response));
  }

 private:
  std::shared_ptr<Reply<Response>> reply_;  // none: the answer is not wanted any more
};

// What a server sees of a ReplyOffer before it knows that both agree about the type.
class AnyReplyOffer {
 public:
  AnyReplyOffer(const std::type_info& response, bool caller_waits)
      : response_(response), caller_waits_(caller_waits) {}
  AnyReplyOffer(const AnyReplyOffer&) = delete;
  AnyReplyOffer& operator=(const AnyReplyOffer&) = delete;
  const std::type_info& response() const { return response_; }
  bool caller_waits() const { return caller_waits_; }  // on the calling thread

 protected:
  ~AnyReplyOffer() = default;

 private:
  const std::type_info& response_;
  const bool caller_waits_;
};

// Lives on the stack of the client during the call.
template <typename Response>
class ReplyOffer : public AnyReplyOffer {
 public:
  explicit ReplyOffer(bool caller_waits) : AnyReplyOffer(typeid(Response), caller_waits) {}
  virtual ReplyOwner<Response> Take() = 0;

 protected:
  ~ReplyOffer() = default;
};

// Returns the offer of a client, or null if the client has no handle. Throws TypeMismatch if the
// client expects another response.
template <typename Response>
ReplyOffer<Response>* FindOffer(const std::any& response) {
  auto* const found = std::any_cast<AnyReplyOffer*>(&response);
  if (found == nullptr) return nullptr;
  if ((*found)->response() != typeid(Response)) {
    throw TypeMismatch("answer", typeid(Response), "client", (*found)->response());
  }
  return static_cast<ReplyOffer<Response>*>(*found);
}

// Lets a thread wait for an answer.
template <typename Response>
class WaitingOffer final : public ReplyOffer<Response> {
 public:
  WaitingOffer() : ReplyOffer<Response>(true) {}
  ~WaitingOffer() = default;

  ReplyOwner<Response> Take() override {
    reply_ = std::make_shared<WaitingReply>();
    return ReplyOwner<Response>(reply_);
  }

  // Returns none if nobody has taken the reply, and when the time is over.
  std::optional<Response> Wait(Clock::time_point end) {
    if (reply_ == nullptr) return std::nullopt;
    return reply_->Wait(end);
  }

 private:
  class WaitingReply final : public Reply<Response> {
   public:
    void Answer(Response response) override { answer_.emplace(std::move(response)); }
    void Finish() override {
      const std::lock_guard lock(mutex_);
      is_finished_ = true;
      finished_.notify_all();
    }
    std::optional<Response> Wait(Clock::time_point end) {
      std::unique_lock lock(mutex_);
      if (!finished_.wait_until(lock, end, [this] { return is_finished_; })) return std::nullopt;
      lock.unlock();  // nobody else touches the answer any more
      return std::move(answer_);
    }

   private:
    std::optional<Response> answer_;  // written before the reply is finished, read afterwards
    std::mutex mutex_;
    std::condition_variable finished_;
    bool is_finished_ = false;
  };

  std::shared_ptr<WaitingReply> reply_;
};

template <typename Response>
class CallOffer final : public ReplyOffer<Response> {
 public:
  explicit CallOffer(ReplyOwner<Response> reply)
      : ReplyOffer<Response>(false), reply_(std::move(reply)) {}
  ~CallOffer() = default;
  ReplyOwner<Response> Take() override { return std::move(reply_); }
  void Answer(Response response) const { reply_.Answer(std::move(response)); }

 private:
  ReplyOwner<Response> reply_;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_REPLY_H_
