// A queue of messages with a depth. Not for users: subscribers, servers and posted tasks have one.
#ifndef ZORVIX_DETAIL_MESSAGE_QUEUE_H_
#define ZORVIX_DETAIL_MESSAGE_QUEUE_H_

#include <zorvix/delivery.h>
#include <zorvix/detail/queue.h>

#include <stdexcept>
#include <type_traits>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

inline std::size_t CheckedDepth(KeepLast keep) {
  if (keep.depth == 0) throw std::invalid_argument("the depth of a queue must be at least 1");
  return keep.depth;
}

// A small message without code of its own is stored in the queue itself. Others are stored on the
// heap, so that moving them runs none of their code under the lock.
template <typename Message>
constexpr bool kIsStoredInPlace = std::is_trivially_copyable_v<Message> && sizeof(Message) <= 64;

template <typename Message, typename Callable>
class MessageQueue final : public Queue {
 public:
  MessageQueue(const char* its_kind, const std::string& its_name, std::shared_ptr<Mailbox> mailbox,
               Callable callable, KeepLast keep)
      : Queue(its_kind, its_name, std::move(mailbox)),
        depth_(CheckedDepth(keep)),
        callable_(std::move(callable)) {}

  template <typename Value>
  void Push(Value&& value) {
    Stored message = Store(std::forward<Value>(value));  // runs code of users, so under no lock
    std::optional<Stored> dropped;                       // destroyed under no lock
    bool first_drop = false;
    {
      Lock lock(mutex());
      // The copy constructor of the message may have closed the queue.
      if (IsClosed()) return;
      if (pending_.size() >= depth_) {
        pending_.push_back(std::move(message));
        dropped.emplace(std::move(pending_.front()));
        pending_.pop_front();
        ++dropped_;
        first_drop = dropped_in_a_row_++ == 0 && depth_ > 1;
      } else {
        turns().MakeRoom();  // first: if an allocation fails, nothing has changed
        pending_.push_back(std::move(message));
        AddTurn();
      }
      Unlock(lock);
    }
    if (first_drop) {
      ZORVIX_LOG("detail/message_queue.h", bridge::kLogWarn,
                 "a full queue drops its oldest messages, kind: %s, name: %s, module: %s, "
                 "depth: %zu",
                 kind, name.c_str(), module, depth_);
    }
    AfterPush();
  }

  Counts Count() const override {
    const std::lock_guard lock(mutex());
    return {pending_.size(), depth_, dropped_};
  }

 private:
  static constexpr bool kInPlace = kIsStoredInPlace<Message>;
  using Stored = std::conditional_t<kInPlace, Message, std::unique_ptr<const Message>>;

  template <typename Value>
  static Stored Store(Value&& value) {
    if constexpr (kInPlace) {
      return std::forward<Value>(value);
    } else {
      return std::make_unique<const Message>(std::forward<Value>(value));
    }
  }
  static const Message& Load(const Stored& message) {
    if constexpr (kInPlace) {
      return message;
    } else {
      return *message;
    }
  }

  void TakeAndInvoke(Lock& lock) override {
    const Stored message = std::move(pending_.front());
    pending_.pop_front();
    const std::size_t caught_up_from = pending_.empty() ? std::exchange(dropped_in_a_row_, 0) : 0;
    Unlock(lock);
    LogDropped(caught_up_from);
    Invoke([&] { static_cast<void>(std::invoke(*callable_, Load(message))); });
  }

  void Discard(Lock& lock) override {
    std::deque<Stored> discarded;
    discarded.swap(pending_);
    const std::size_t dropped = std::exchange(dropped_in_a_row_, 0);
    RemoveTurns();
    Unlock(lock);
    LogDropped(dropped);
    if (discarded.empty()) return;
    ZORVIX_LOG("detail/message_queue.h", bridge::kLogInfo,
               "pending messages are discarded, kind: %s, name: %s, module: %s, discarded: %zu",
               kind, name.c_str(), module, discarded.size());
  }

  void DestroyCallable() override { callable_.reset(); }

  void LogDropped(std::size_t count) const {
    if (count == 0 || depth_ == 1) return;
    ZORVIX_LOG("detail/message_queue.h", bridge::kLogWarn,
               "a queue has dropped messages, kind: %s, name: %s, module: %s, dropped: %zu", kind,
               name.c_str(), module, count);
  }

  const std::size_t depth_;
  std::optional<Callable> callable_;
  // Guarded by the mailbox's mutex:
  std::deque<Stored> pending_;
  std::size_t dropped_ = 0;
  std::size_t dropped_in_a_row_ = 0;  // since it last caught up
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_MESSAGE_QUEUE_H_
