// The latest value that a watcher has of a state.
#ifndef ZORVIX_HANDLES_WATCH_QUEUE_H_
#define ZORVIX_HANDLES_WATCH_QUEUE_H_

#include <cstdint>
#include <memory>
#include <typeinfo>

#include "gate.h"
#include "latest_queue.h"

namespace zorvix::detail {

// A value of a state, with a number that grows with each value. It is published by its address.
struct Version {
  std::uint64_t number = 0;  // 0: no value
  std::shared_ptr<const void> value;
  const std::type_info* type = nullptr;  // of the holder's module
  const char* holder = nullptr;          // its module
};

class WatchQueue final : public LatestQueue<std::shared_ptr<const void>> {
 public:
  WatchQueue(const Endpoint& endpoint, std::shared_ptr<Strand> its_strand, Callable callable);

  // `wanted` is of the watcher's module. Throws TypeMismatch.
  void CheckType(const Version& version, const std::type_info& wanted);

  // Ignores versions that are not later than the latest.
  void Push(Version version);

  // Returns null if there is no value by then.
  std::shared_ptr<const void> WaitForValue(Clock::time_point end);

  void Close() override;

 private:
  Gate gate_;
  Condition changed_;
  std::uint64_t number_ ZORVIX_GUARDED_BY(mutex_) = 0;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_WATCH_QUEUE_H_
