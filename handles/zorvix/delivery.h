// Where the callable of a handle is invoked, and how much is kept for it until then.
//
//   #include <zorvix/subscriber.h>
//
//   inline constexpr zorvix::Topic<float> kLevels{"levels"};
//
//   zorvix::Subscriber<float> ShowLevels() {
//     return {kLevels, [](float) {}, zorvix::Delivery::Queued, zorvix::KeepLast{10}};
//   }
#ifndef ZORVIX_DELIVERY_H_
#define ZORVIX_DELIVERY_H_

#include <zorvix/zorvix.h>

#include <cstddef>
#include <limits>

namespace zorvix {

// Where the callable of a handle without an inbox is invoked.
enum class Delivery {
  Direct,  // on the thread that publishes, calls or sets, while it does so; see typed.h
  Queued,  // where the bridge's queue is drained: on a worker, or in SpinOnce. The bound of that
           // queue drops none of their messages: only the KeepLast of the handle does
};

// How many messages, or requests, of one handle may be pending (ROS 2's history and depth). When
// one more arrives, the handle's oldest one is dropped; a client drops the new call (see client.h).
//
// Logs a WARN with the first drop, and one with the number of drops when the handle has caught up
// or is destroyed. With a depth of 1, only the latest one is kept, and drops are not logged. A
// handle with a depth of 0 throws std::invalid_argument.
struct KeepLast {
  std::size_t depth = 100;
};

// No bound but memory.
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
