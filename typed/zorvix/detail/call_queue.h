// The calls of a client with an inbox. Not for users.
#ifndef ZORVIX_DETAIL_CALL_QUEUE_H_
#define ZORVIX_DETAIL_CALL_QUEUE_H_

#include <zorvix/detail/queue.h>
#include <zorvix/detail/reply.h>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

template <typename Response>
class CallQueue;

// A call of a client with an inbox: its callable, and its answer.
template <typename Response>
class PendingCall : public Reply<Response>,
                    public std::enable_shared_from_this<PendingCall<Response>> {
 public:
  explicit PendingCall(std::shared_ptr<CallQueue<Response>> queue) : queue_(std::move(queue)) {}
  void Answer(Response response) override { answer_.emplace(std::move(response)); }
  void Finish() override { queue_->Settle(this->shared_from_this()); }

  // Passes the answer to the callable.
  virtual void Invoke() = 0;
  virtual void DestroyCallable() = 0;

 protected:
  std::optional<Response> answer_;  // written before the reply is finished, read afterwards

 private:
  friend class CallQueue<Response>;
  const std::shared_ptr<CallQueue<Response>> queue_;
  // Guarded by the mailbox's mutex. A call is in progress until it is finished or discarded.
  bool in_progress_ = false;
  PendingCall* next_ = nullptr;
  PendingCall* previous_ = nullptr;
  std::shared_ptr<PendingCall> next_answered_;
};

// The calls of a client with an inbox. An answer allocates nothing, so that it cannot fail.
template <typename Response>
class CallQueue final : public Queue {
 public:
  using Queue::Queue;
  using Call = PendingCall<Response>;

  // Returns the reply of the call. If the inbox is destroyed, nothing comes of it.
  ReplyOwner<Response> Add(const std::shared_ptr<Call>& call) {
    const std::lock_guard lock(mutex());
    if (IsClosed()) return {};
    turns().Reserve();
    call->in_progress_ = true;
    call->next_ = std::exchange(in_progress_, call.get());
    if (call->next_ != nullptr) call->next_->previous_ = call.get();
    return ReplyOwner<Response>(call);
  }

  // Ends a call in progress: its callable is invoked in a drain. If the inbox is destroyed, the
  // queue keeps the call until the client is destroyed, since this thread could still be destroying
  // the callable when the destructor of the client returns.
  void Settle(std::shared_ptr<Call> call) {
    {
      Lock lock(mutex());
      if (!call->in_progress_) return;  // discarded
      EndProgress(*call);
      auto& last = last_answered_ == nullptr ? first_answered_ : last_answered_->next_answered_;
      last_answered_ = call.get();
      last = std::move(call);
      ++answered_count_;
      if (IsClosed()) return;
      AddTurn();
      Unlock(lock);
    }
    AfterPush();
  }

  Counts Count() const override {
    const std::lock_guard lock(mutex());
    return {answered_count_, 0, 0};
  }

 private:
  using Lock = Queue::Lock;

  struct DestroyedAtEnd {
    ~DestroyedAtEnd() { call.DestroyCallable(); }
    Call& call;
  };

  void EndProgress(Call& call) {
    turns().Unreserve(1);
    call.in_progress_ = false;
    if (call.next_ != nullptr) call.next_->previous_ = call.previous_;
    if (call.previous_ != nullptr) {
      call.previous_->next_ = call.next_;
    } else {
      in_progress_ = call.next_;
    }
  }

  std::shared_ptr<Call> TakeAnswered() {
    auto call = std::move(first_answered_);
    first_answered_ = std::move(call->next_answered_);
    if (first_answered_ == nullptr) last_answered_ = nullptr;
    --answered_count_;
    return call;
  }

  void TakeAndInvoke(Lock& lock) override {
    const auto call = TakeAnswered();
    Unlock(lock);
    // Also when the callable throws: the server's thread may still own the call.
    const DestroyedAtEnd destroyed_at_end{*call};
    Invoke([&] { call->Invoke(); });
  }

  // Called when the client is destroyed, and when its inbox is. The server may have the call for
  // longer, without the callable. All calls are taken before the first unlock: another thread that
  // settled one meanwhile would destroy its callable after the client.
  void Discard(Lock& lock) override {
    RemoveTurns();
    auto discarded = std::move(first_answered_);
    last_answered_ = nullptr;
    answered_count_ = 0;
    while (in_progress_ != nullptr) {
      auto call = in_progress_->shared_from_this();
      EndProgress(*call);
      call->next_answered_ = std::move(discarded);
      discarded = std::move(call);
    }
    Unlock(lock);
    while (discarded != nullptr) {
      discarded->DestroyCallable();
      discarded = std::move(discarded->next_answered_);
    }
  }

  void DestroyCallable() override {}  // each call has its own

  // Guarded by the mailbox's mutex:
  Call* in_progress_ = nullptr;
  std::shared_ptr<Call> first_answered_;
  Call* last_answered_ = nullptr;
  std::size_t answered_count_ = 0;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_CALL_QUEUE_H_
