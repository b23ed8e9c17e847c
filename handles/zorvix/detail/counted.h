// What a presence of a Topic, Service or State counts. Not for users.
#ifndef ZORVIX_DETAIL_COUNTED_H_
#define ZORVIX_DETAIL_COUNTED_H_

#include <zorvix/detail/checks.h>
#include <zorvix/detail/library.h>
#include <zorvix/state.h>
#include <zorvix/topic.h>
#include <zorvix/zorvix.h>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

// Has no members for other types.
template <typename Of>
struct Counted {};
template <typename Message, bridge::BridgeType kType>
struct Counted<Topic<Message, kType>> {
  static constexpr Counterparts kCounterparts = Counterparts::kSubscribers;
  static constexpr bridge::BridgeType kBridgeType = kType;
};
template <typename Request, typename Response, bridge::BridgeType kType>
struct Counted<Service<Request, Response, kType>> {
  static constexpr Counterparts kCounterparts = Counterparts::kServers;
  static constexpr bridge::BridgeType kBridgeType = kType;
};
template <typename Value>
struct Counted<State<Value>> {
  static constexpr Counterparts kCounterparts = Counterparts::kHolders;
  static constexpr bridge::BridgeType kBridgeType = bridge::BridgeType::Sync;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_COUNTED_H_
