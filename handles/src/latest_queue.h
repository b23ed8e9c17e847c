// A queue that keeps only the latest value.
#ifndef ZORVIX_HANDLES_LATEST_QUEUE_H_
#define ZORVIX_HANDLES_LATEST_QUEUE_H_

#include <zorvix/detail/library.h>

#include <cstdint>
#include <memory>
#include <utility>

#include "strand.h"

namespace zorvix::detail {

// Returns the strand in which a callable is invoked at that place. If it is invoked directly, that
// is a strand of its own, which drains itself on the thread that pushes, unless another thread is
// draining it. That thread goes on then.
std::shared_ptr<Strand> StrandOrDirect(const Place& place, const Endpoint& endpoint);

// What a callable takes of a value that a queue keeps.
template <typename Value>
const void* Passed(const Value& value) {
  return &value;
}
inline const void* Passed(const std::shared_ptr<const void>& value) { return value.get(); }

// The value is pending until the callable has been invoked with it. A push allocates nothing.
template <typename Value>
class LatestQueue : public Queue {
 public:
  LatestQueue(const char* its_kind, const Endpoint& endpoint, std::shared_ptr<Strand> its_strand,
              Callable callable)
      : Queue(its_kind, endpoint.name, endpoint.module, std::move(its_strand)),
        callable_(std::move(callable)) {
    has_callable = static_cast<bool>(callable_);
  }

  Value Latest() const {
    const Lock lock(mutex_);
    return value_;
  }

  void Close() override {
    Queue::Close();
    Value value{};  // destroyed under no lock
    const Lock lock(mutex_);
    has_ended_ = true;
    std::swap(value_, value);
  }
  Counts Count() const override {
    const Lock lock(mutex_);
    Counts counts;
    if (turn_ != 0) counts.pending = 1;
    if (has_callable) counts.depth = 1;
    counts.received = received_;
    return counts;
  }

 protected:
  // Calls update(value) under the mutex. It returns whether that has changed the value.
  template <typename Update>
  void Push(const Update& update) {
    bool is_first = false;
    {
      const Lock lock(mutex_);
      if (has_ended_ || !update(value_)) return;
      ++received_;
      if (!has_callable || IsClosed()) return;
      is_first = turn_ == 0;
      if (is_first) {
        turn_ = AddTurn(true);
      } else {
        CountPush();
      }
    }
    if (is_first) {
      AfterPush();
    } else {
      LogIfLate();
    }
  }

  Value value_ ZORVIX_GUARDED_BY(mutex_){};

 private:
  Turn Take() override ZORVIX_REQUIRES(mutex_) {
    taken_ = value_;
    turn_ = 0;
    return 0;
  }
  void InvokeTaken() override {
    const Value value = std::move(taken_);
    Invoke([&] { callable_(Passed(value), nullptr); });
  }
  void Discard() override {
    const Lock lock(mutex_);
    if (turn_ != 0) RemoveTurns(turn_, 1);
    turn_ = 0;
  }
  void DestroyCallable() override { callable_.Reset(); }

  Callable callable_;
  Value taken_{};  // by the drain in progress
  std::uint64_t received_ ZORVIX_GUARDED_BY(mutex_) = 0;
  Turn turn_ ZORVIX_GUARDED_BY(mutex_) = 0;  // 0: nothing is pending
  bool has_ended_ ZORVIX_GUARDED_BY(mutex_) = false;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_LATEST_QUEUE_H_
