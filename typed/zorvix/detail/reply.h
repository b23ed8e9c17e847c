// Where the answer of a call goes when the server has an inbox. Not for users.
//
// A client passes the address of an AnyReplyOffer in the response. A server with an inbox finds it
// there and takes the Reply along with the request. Every other server overwrites the response.
#ifndef ZORVIX_DETAIL_REPLY_H_
#define ZORVIX_DETAIL_REPLY_H_

#include <zorvix/detail/endpoint.h>
#include <zorvix/detail/message_queue.h>

#include <list>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

// Takes the answer of one call. If it is destroyed without one, the answer is none.
template <typename Response>
class Reply {
 public:
  Reply() = default;
  virtual ~Reply() = default;
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;
  virtual void Answer(Response response) = 0;
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
  virtual std::shared_ptr<Reply<Response>> Take() = 0;

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

  std::shared_ptr<Reply<Response>> Take() override {
    state_ = std::make_shared<State>();
    return std::make_shared<WaitingReply>(state_);
  }

  // Returns none if nobody has taken the reply, and when the time is over.
  std::optional<Response> Wait(Clock::time_point end) {
    if (state_ == nullptr) return std::nullopt;
    std::unique_lock lock(state_->mutex);
    if (!state_->settled.wait_until(lock, end, [&] { return state_->is_settled; })) {
      return std::nullopt;
    }
    // Nobody else touches the answer any more.
    lock.unlock();
    return std::move(state_->answer);
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable settled;
    bool is_settled = false;
    std::optional<Response> answer;
  };

  class WaitingReply final : public Reply<Response> {
   public:
    explicit WaitingReply(std::shared_ptr<State> state) : state_(std::move(state)) {}
    ~WaitingReply() override {
      {
        const std::lock_guard lock(state_->mutex);
        state_->is_settled = true;
      }
      state_->settled.notify_all();
    }
    // The waiting thread looks at it when the reply has been destroyed.
    void Answer(Response response) override { state_->answer.emplace(std::move(response)); }

   private:
    const std::shared_ptr<State> state_;
  };

  std::shared_ptr<State> state_;
};

// The calls of a client with an inbox: their callables, and the answers that are pending.
template <typename Response>
class CallQueue final : public Queue {
 public:
  using Queue::Queue;

  class Callable {
   public:
    Callable() = default;
    virtual ~Callable() = default;
    Callable(const Callable&) = delete;
    Callable& operator=(const Callable&) = delete;
    virtual void Invoke(std::optional<Response> answer) = 0;
  };

  // Returns the reply whose answer the callable is invoked with, in a drain.
  std::shared_ptr<Reply<Response>> Add(std::unique_ptr<Callable> callable) {
    Calls added;
    added.push_back({std::move(callable), nullptr});
    const auto call = added.begin();
    const auto self = std::static_pointer_cast<CallQueue>(this->shared_from_this());
    const auto reply = std::make_shared<CallReply>(self, call);
    {
      const std::lock_guard lock(this->mutex());
      if (!this->IsClosed()) {
        this->turns().Reserve();  // an answer must not fail for want of memory
        in_progress_.splice(in_progress_.end(), added);
        reply->Expect();
      }
    }
    return reply;
  }

  Counts Count() const override {
    const std::lock_guard lock(this->mutex());
    return {answered_.size(), 0, 0};
  }

 private:
  using Lock = Queue::Lock;
  struct Call {
    std::unique_ptr<Callable> callable;
    std::unique_ptr<Response> answer;
  };
  using Calls = std::list<Call>;

  class CallReply final : public Reply<Response> {
   public:
    CallReply(std::shared_ptr<CallQueue> queue, typename Calls::iterator call)
        : queue_(std::move(queue)), call_(call) {}
    ~CallReply() override {
      if (expected_) queue_->Settle(call_, nullptr);
    }
    void Expect() { expected_ = true; }
    void Answer(Response response) override {
      auto answer = std::make_unique<Response>(std::move(response));
      if (std::exchange(expected_, false)) queue_->Settle(call_, std::move(answer));
    }

   private:
    const std::shared_ptr<CallQueue> queue_;
    const typename Calls::iterator call_;
    bool expected_ = false;
  };

  void Settle(typename Calls::iterator call, std::unique_ptr<Response> answer) {
    Calls discarded;  // destroyed under no lock
    {
      Lock lock(this->mutex());
      if (closed_calls_) return;  // the call is destroyed already
      if (this->IsClosed()) {
        discarded.splice(discarded.end(), in_progress_, call);
        this->turns().Unreserve(1);
      } else {
        call->answer = std::move(answer);
        answered_.splice(answered_.end(), in_progress_, call);
        this->turns().Unreserve(1);
        this->AddTurn();
      }
      this->Unlock(lock);
    }
    this->AfterPush();
  }

  void TakeAndInvoke(Lock& lock) override {
    Calls taken;
    taken.splice(taken.end(), answered_, answered_.begin());
    this->Unlock(lock);
    Call& call = taken.front();
    this->Invoke([&] {
      std::optional<Response> answer;
      if (call.answer != nullptr) answer.emplace(std::move(*call.answer));
      call.callable->Invoke(std::move(answer));
    });
  }

  // Called when the client is destroyed, and when its inbox is.
  void Discard(Lock& lock) override {
    Calls discarded;
    discarded.swap(answered_);
    this->turns().Unreserve(in_progress_.size());
    discarded.splice(discarded.end(), in_progress_);
    closed_calls_ = true;
    this->RemoveTurns();
    this->Unlock(lock);
  }

  void DestroyCallable() override {}  // each call has its own

  // Guarded by the mailbox's mutex:
  Calls in_progress_;
  Calls answered_;
  bool closed_calls_ = false;
};

template <typename Response>
class CallOffer final : public ReplyOffer<Response> {
 public:
  explicit CallOffer(std::shared_ptr<Reply<Response>> reply)
      : ReplyOffer<Response>(false), reply_(std::move(reply)) {}
  ~CallOffer() = default;
  std::shared_ptr<Reply<Response>> Take() override { return reply_; }

 private:
  const std::shared_ptr<Reply<Response>> reply_;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_REPLY_H_
