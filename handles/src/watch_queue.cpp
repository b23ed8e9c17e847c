#include "watch_queue.h"

#include <utility>

#include "endpoint.h"

namespace zorvix::detail {

WatchQueue::WatchQueue(const Endpoint& endpoint, std::shared_ptr<Strand> its_strand,
                       Callable callable)
    : LatestQueue("Watcher", endpoint, std::move(its_strand), std::move(callable)) {}

void WatchQueue::CheckType(const Version& version, const std::type_info& wanted) {
  const Gate::Pass pass(gate_);
  if (!pass.admitted() || *version.type == wanted) return;
  rejected.Add();
  throw TypeMismatch("value", {"holder", *version.type, version.holder},
                     {"watcher", wanted, module});
}

void WatchQueue::Push(Version version) {
  LatestQueue::Push([&](auto& value) {
    mutex_.AssertHeld();
    if (version.number <= number_) return false;
    number_ = version.number;
    value.swap(version.value);  // the previous one is destroyed under no lock
    changed_.NotifyAll();
    return true;
  });
}

std::shared_ptr<const void> WatchQueue::WaitForValue(Clock::time_point end) {
  Lock lock(mutex_);
  while (value_ == nullptr && changed_.WaitUntil(lock, end)) {
  }
  return value_;
}

void WatchQueue::Close() {
  gate_.Close(*this, nullptr);
  LatestQueue::Close();
}

}  // namespace zorvix::detail
