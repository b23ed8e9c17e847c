// The calls of a client whose callables are invoked in a strand.
#ifndef ZORVIX_HANDLES_CALL_QUEUE_H_
#define ZORVIX_HANDLES_CALL_QUEUE_H_

#include <atomic>
#include <cstddef>
#include <list>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "reply.h"
#include "strand.h"

namespace zorvix::detail {

class CallQueue;

// A call in progress, or one that is answered. The server's request shares it.
class PendingCall final : public SharedReply, private Timed {
 public:
  PendingCall(std::shared_ptr<CallQueue> queue, Function<> callable)
      : queue_(std::move(queue)), callable_(std::move(callable)) {}
  void Settle(const Outcome& outcome) override;

 private:
  friend class CallQueue;
  void Expire() override;

  const std::shared_ptr<CallQueue> queue_;
  Function<> callable_;
  const AnswerSlot slot_ = callable_.answer();
  // The thread that settles or discards the call, and so the only one that may use the callable
  // until the call is answered. None while it is in progress.
  std::atomic<std::thread::id> owner_{std::thread::id()};
  bool is_abandoned_ = false;  // the owner has destroyed the client while it settled the call
  Turn turn_ = 0;              // the queue's mutex guards this and what follows
  std::list<std::shared_ptr<PendingCall>>::iterator position_;
  std::optional<Timeouts::iterator> timeout_;
};

// An answer allocates nothing, so that it cannot fail.
class CallQueue final : public Queue {
 public:
  CallQueue(const Endpoint& endpoint, std::shared_ptr<Strand> strand, KeepLast keep);

  // Returns false if the client has too many calls: this one is answered then. Otherwise provides
  // the reply of the call. If the queue is closed, nothing comes of it. At `end`, the call is
  // answered, unless it has been before.
  bool Add(const std::shared_ptr<PendingCall>& call, std::optional<Clock::time_point> end,
           ReplyOwner& reply);

  Counts Count() const override;

 private:
  friend class PendingCall;
  using Calls = std::list<std::shared_ptr<PendingCall>>;
  static constexpr std::size_t kMostSpare = 64;

  // Makes this thread the owner. Returns whether it is, and EndSettling must follow.
  static bool Claim(PendingCall& call);
  void EndSettling(PendingCall& call);
  void AddAnswer(PendingCall& call) ZORVIX_REQUIRES(mutex_);
  void RemoveTimeout(PendingCall& call) ZORVIX_REQUIRES(mutex_);

  bool IsUsedByOthers() const override ZORVIX_REQUIRES(mutex_);
  Turn Take() override ZORVIX_REQUIRES(mutex_);
  void InvokeTaken() override;
  void Discard() override;
  void DestroyCallable() override;

  const std::size_t depth_;

  // Of the drain in progress:
  std::shared_ptr<PendingCall> taken_;
  std::size_t caught_up_from_ = 0;

  Calls in_progress_ ZORVIX_GUARDED_BY(mutex_);
  Calls answered_ ZORVIX_GUARDED_BY(mutex_);
  Calls late_ ZORVIX_GUARDED_BY(mutex_);   // answered when they were not wanted any more
  Calls spare_ ZORVIX_GUARDED_BY(mutex_);  // elements for later calls, at most kMostSpare
  std::size_t dropped_ ZORVIX_GUARDED_BY(mutex_) = 0;
  std::size_t dropped_in_a_row_ ZORVIX_GUARDED_BY(mutex_) = 0;  // since it last caught up
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_CALL_QUEUE_H_
