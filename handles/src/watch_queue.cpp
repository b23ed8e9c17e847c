#include "watch_queue.h"

#include <utility>

#include "endpoint.h"

namespace zorvix::detail {

WatchQueue::WatchQueue(const Endpoint& endpoint, std::shared_ptr<Strand> its_strand,
                       Callable callable)
    : Queue("Watcher", endpoint.name, endpoint.module, std::move(its_strand)),
      has_callable_(callable),
      callable_(std::move(callable)) {}

void WatchQueue::CheckType(const std::type_info& given, const std::type_info& wanted) {
  const Gate::Pass pass(gate_);
  if (pass.admitted() && given != wanted) throw TypeMismatch("value", given, "watcher", wanted);
}

void WatchQueue::Push(Version version) {
  {
    const Lock lock(mutex_);
    if (version.number <= number_ || has_ended_) return;
    number_ = version.number;
    value_.swap(version.value);  // the previous one is destroyed under no lock
    changed_.NotifyAll();
    if (!has_callable_ || turn_ != 0 || IsClosed()) return;
    turn_ = AddTurn(true);
  }
  AfterPush();
}

std::shared_ptr<const void> WatchQueue::Newest() const {
  const Lock lock(mutex_);
  return value_;
}

std::shared_ptr<const void> WatchQueue::WaitFor(Clock::time_point end) {
  Lock lock(mutex_);
  while (value_ == nullptr && changed_.WaitUntil(lock, end)) {
  }
  return value_;
}

void WatchQueue::Close() {
  gate_.Close(name, nullptr);
  Queue::Close();
  std::shared_ptr<const void> value;  // destroyed under no lock
  const Lock lock(mutex_);
  has_ended_ = true;
  value_.swap(value);
}

Turn WatchQueue::Take() {
  taken_ = value_;
  turn_ = 0;
  return 0;
}

void WatchQueue::InvokeTaken() {
  const std::shared_ptr<const void> value = std::move(taken_);
  Invoke([&] { callable_(value.get(), nullptr); });
}

void WatchQueue::Discard() {
  const Lock lock(mutex_);
  if (turn_ != 0) RemoveTurns(turn_, 1);
  turn_ = 0;
}

Counts WatchQueue::Count() const {
  const Lock lock(mutex_);
  return {turn_ == 0 ? 0u : 1u, has_callable_ ? 1u : 0u, 0};
}

}  // namespace zorvix::detail
