// A queue of messages or requests with a depth, in a strand.
#ifndef ZORVIX_HANDLES_MESSAGE_QUEUE_H_
#define ZORVIX_HANDLES_MESSAGE_QUEUE_H_

#include <zorvix/delivery.h>

#include <any>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <typeinfo>

#include "drops.h"
#include "fifo.h"
#include "gate.h"
#include "reply.h"
#include "strand.h"

namespace zorvix::detail {

// Invariants, under the mutex: at most `depth_` messages are pending, oldest first, with rising
// turns; `first_turn_` is the turn of the oldest one, or a lower one of a message that was dropped.
class MessageQueue final : public Queue {
 public:
  // `answer_type` is that of a server, whose messages are requests, or null.
  MessageQueue(const char* its_kind, const std::string& its_name, Module& its_module,
               std::shared_ptr<Strand> strand, const MessageType& type, Callable callable,
               KeepLast keep, const std::type_info* answer_type = nullptr);

  // Stores a copy. Throws TypeMismatch.
  void Push(const std::any& message);
  // Does the same. Takes the reply of the offer, which is settled if the request is not stored.
  void PushRequest(const std::any& request, Offer& offer);
  // Takes a message on the heap.
  void PushOwned(void* copy);

  // Where code may use the module.
  Gate& gate() { return gate_; }

  void Close() override;
  Counts Count() const override;

 private:
  // What is stored of a message: the value itself, or the address of a copy on the heap.
  union Stored {
    alignas(std::max_align_t) unsigned char value[64];
    void* copy;
  };
  // A message that is in no queue any more, or not yet, and its reply. Destroyed under no lock.
  class Taken {
   public:
    // `why` a reply that is left is settled without an answer.
    Taken(const MessageQueue& queue, Why why) : why_(why), queue_(queue) {}
    ~Taken() { Reset(); }
    Taken(const Taken&) = delete;
    Taken& operator=(const Taken&) = delete;
    void Reset() {
      if (owns_message || reply.IsWanted()) Destroy();
    }
    const void* message() const { return queue_.is_in_place_ ? &stored : stored.copy; }

    Stored stored;
    bool owns_message = false;  // one on the heap
    ReplyOwner reply;

   private:
    void Destroy();
    const Why why_;
    const MessageQueue& queue_;
  };
  // What the client of a request expects. Null for a message.
  struct Expected {
    ReplyOwner reply;
    const std::type_info& answer_type;
    const char* client;  // its module
  };
  enum class Pushed { kYes, kClosed, kOtherType, kOtherAnswer };

  Pushed Push(const std::any& message, Expected* expected) {
    return is_in_place_ ? PushInPlace(message, expected) : PushCopy(message, expected);
  }
  // Throws TypeMismatch, unless the queue is closed.
  void RejectMessage(const std::any& message);
  void RejectRequest(const std::any& request, Expected& expected, Pushed pushed);
  Pushed PushInPlace(const std::any& message, Expected* expected);
  Pushed PushCopy(const std::any& message, Expected* expected);
  // The types are in the module, so they are compared with a pass or, while it is open, under the
  // mutex.
  bool GivesAnswer(const Expected* expected) const {
    return expected == nullptr || expected->answer_type == *answer_type_;
  }
  // Makes the message in the next slot the newest one. Drops the oldest one if the queue is full.
  // Returns whether LogDropping is due.
  bool Add(std::optional<Taken>& dropped) ZORVIX_REQUIRES(mutex_);
  bool AddToFull(std::optional<Taken>& dropped) ZORVIX_REQUIRES(mutex_);
  // Does the same with a copy, which is not in a slot yet.
  bool AddCopy(Taken& copy, std::optional<Taken>& dropped) ZORVIX_REQUIRES(mutex_);
  // A slot has a message, its turn, and for a server the reply.
  Turn* TurnIn(void* slot) const;
  ReplyOwner* ReplyIn(void* slot) const;
  void PopInto(Taken& oldest, Fifo& pending) const;

  Turn Take() override ZORVIX_REQUIRES(mutex_);
  void InvokeTaken() override;
  void Discard() override;
  void DestroyCallable() override { callable_.Reset(); }
  void LogDropping() const;

  const MessageType& type_;
  const std::type_info* const answer_type_;
  const bool is_in_place_;
  const std::size_t value_size_;  // of the message in a slot
  const std::size_t slot_size_;
  const std::size_t depth_;
  Gate gate_;  // a push is inside while it uses code of the module without the mutex
  Callable callable_;

  // Of the drain in progress:
  Taken taken_{*this, Why::Threw};
  std::size_t dropped_to_log_ = 0;

  Fifo pending_ ZORVIX_GUARDED_BY(mutex_);
  // The turn of the oldest message, perhaps taken over from a dropped one.
  Turn first_turn_ ZORVIX_GUARDED_BY(mutex_) = 0;
  std::uint64_t received_ ZORVIX_GUARDED_BY(mutex_) = 0;
  Drops drops_ ZORVIX_GUARDED_BY(mutex_);
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_MESSAGE_QUEUE_H_
