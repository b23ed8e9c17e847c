// How a subscriber gets its messages, and how many of them are kept for it.
#ifndef ZORVIX_DELIVERY_H_
#define ZORVIX_DELIVERY_H_

#include <cstddef>
#include <limits>

namespace zorvix {

// Where the callable of a subscriber to a Sync topic is invoked, unless the subscriber has an
// inbox.
enum class Delivery {
  Direct,  // on the publisher's thread, before Publish returns
  Queued,  // where the bridge's queue is drained: on a worker, or in SpinOnce
};

// How many messages of one subscriber may be pending. When one more arrives, the subscriber's
// oldest pending message is dropped. Logs a WARN with the first drop, and one with the number of
// drops when the subscriber has caught up or is destroyed. With a depth of 1, only the latest value
// is kept, and drops are not logged. A depth of 0 throws std::invalid_argument.
struct KeepLast {
  std::size_t depth = 100;
};

// No message is dropped: memory is the only bound.
struct KeepAll {
  constexpr operator KeepLast() const { return {std::numeric_limits<std::size_t>::max()}; }
};

// Whether a publisher expects subscribers.
enum class Audience {
  Expected,  // a publication without a subscriber is logged, as a WARN
  Optional,  // it is not
};

}  // namespace zorvix

#endif  // ZORVIX_DELIVERY_H_
