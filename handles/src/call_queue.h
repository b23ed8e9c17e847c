// The calls of a client whose callables are invoked in a strand.
#ifndef ZORVIX_HANDLES_CALL_QUEUE_H_
#define ZORVIX_HANDLES_CALL_QUEUE_H_

#include <cstddef>
#include <memory>
#include <utility>

#include "drops.h"
#include "reply.h"
#include "strand.h"
#include "sync.h"

namespace zorvix::detail {

class CallQueue;

// A call in progress, or one that is answered. The server's request shares it.
class PendingCall final : public SharedReply, private Timed {
 public:
  explicit PendingCall(std::shared_ptr<CallQueue> queue) : queue_(std::move(queue)) {}
  void Settle(const Outcome& outcome) override;

 private:
  friend class CallList;
  friend class CallQueue;
  void Expire() override;
  void Write(const Outcome& outcome);

  const std::shared_ptr<CallQueue> queue_;
  Function<> callable_;
  // The thread that settles or discards the call, and so the only one that may use the callable
  // until the call is answered. None while it is in progress.
  Atomic<Thread::id> owner_{Thread::id()};
  bool is_abandoned_ = false;  // the owner has destroyed the client while it settled the call
  // The queue's mutex guards what follows.
  bool has_timeout_ = false;
  Timeouts::iterator timeout_;
  Turn turn_ = 0;
  // While it is in a list:
  std::shared_ptr<PendingCall> self_;
  PendingCall* previous_ = nullptr;
  PendingCall* next_ = nullptr;
};

// Calls in their order. A call is in at most one list, and needs no memory for that. The queue sees
// to it that it exists meanwhile.
class CallList {
 public:
  std::size_t size() const { return size_; }
  PendingCall* first() const { return first_; }
  static PendingCall* Next(const PendingCall& call) { return call.next_; }

  // At the end.
  void Add(PendingCall& call) noexcept;
  void Remove(PendingCall& call) noexcept;

 private:
  std::size_t size_ = 0;
  PendingCall* first_ = nullptr;
  PendingCall* last_ = nullptr;
};

// An answer allocates nothing, so that it cannot fail.
class CallQueue final : public Queue {
 public:
  CallQueue(const Endpoint& endpoint, std::shared_ptr<Strand> strand, KeepLast keep);

  // Returns false if the client has too many calls: this one is answered then. Otherwise provides
  // the reply of the call. If the queue is closed, nothing comes of it. At `end`, unless that is
  // kNever, the call is answered if it has not been before.
  bool Add(Function<>&& callable, Clock::time_point end, ReplyOwner& reply);

  Counts Count() const override;

 private:
  friend class PendingCall;
  static constexpr std::size_t kMostSpare = 64;

  enum class Added { kYes, kClosed, kFull };
  Added AddInProgress(std::shared_ptr<PendingCall>& call);
  void Drop(Function<>&& callable);
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
  std::shared_ptr<CallQueue> Self() {
    return std::static_pointer_cast<CallQueue>(shared_from_this());
  }
  // Destroys their callables.
  static void Destroy(CallList& calls);

  const std::size_t depth_;

  // Of the drain in progress:
  std::shared_ptr<PendingCall> taken_;
  std::shared_ptr<PendingCall> unused_;  // nobody else has it any more
  std::size_t dropped_to_log_ = 0;

  CallList in_progress_ ZORVIX_GUARDED_BY(mutex_);
  CallList answered_ ZORVIX_GUARDED_BY(mutex_);
  CallList late_ ZORVIX_GUARDED_BY(mutex_);   // answered when they were not wanted any more
  CallList spare_ ZORVIX_GUARDED_BY(mutex_);  // for later calls, until it is closed
  Drops drops_ ZORVIX_GUARDED_BY(mutex_);
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_CALL_QUEUE_H_
