// Tells who is there: how many subscribers a topic has, how many servers a service, how many
// holders a state.
//
//   const zorvix::Presence viewers(kImages, [this](const zorvix::Matched& now) {
//     camera_.SetOn(now.count != 0);  // invoked now, and with each change
//   }, inbox);
//
// Counts handles of all modules. Subscribers and servers that are registered through zorvix.h are
// not seen. A handle counts from when its registration is complete until it has unregistered.
#ifndef ZORVIX_PRESENCE_H_
#define ZORVIX_PRESENCE_H_

#include <zorvix/delivery.h>
#include <zorvix/detail/checks.h>
#include <zorvix/detail/library.h>
#include <zorvix/detail/mistakes.h>
#include <zorvix/state.h>
#include <zorvix/topic.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>

namespace zorvix {

// What a presence knows. Since it has totals, nothing is missed, even by a callable that is not
// invoked with each change.
struct Matched {
  std::size_t count = 0;  // arrived less departed
  // Since the presence was constructed:
  std::uint64_t arrived = 0;  // those that existed before included
  std::uint64_t departed = 0;
};

namespace detail ZORVIX_HIDDEN {

// What a presence of a Topic, Service or State counts. Has no members for other types.
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

// `of` is a Topic, a Service or a State.
class [[nodiscard]] Presence {
 public:
  template <typename Of, bridge::BridgeType kType = detail::Counted<Of>::kBridgeType>
  [[nodiscard]] explicit Presence(const Of& of)
      : state_(detail::MakePresence({of.name, kType}, detail::Counted<Of>::kCounterparts, {}, {})) {
  }

  // Invokes callable(const Matched&) with the present count, and after each change with the latest
  // one, one at a time. Changes in between may be skipped, the last one never. The callable may
  // construct and destroy handles of the same name.
  //
  // With Delivery::Direct, on the thread that constructs or destroys a counterpart, or on a thread
  // that is still inside the callable: it stays there while other threads construct and destroy
  // counterparts. When that constructor or destructor has returned, outside the callable, the
  // callable has been invoked with the change, or is being invoked on another thread. An exception
  // that is no std::exception ends the process, but for the first invocation, on the thread that
  // constructs the presence. With Delivery::Queued, where the bridge's queue is drained.
  template <typename Of, typename Callable,
            bridge::BridgeType kType = detail::Counted<Of>::kBridgeType,
            detail::IfCallable<Callable> = 0>
  [[nodiscard]] Presence(const Of& of, Callable callable, Delivery delivery = Delivery::Direct)
      : state_(detail::MakePresence({of.name, kType}, detail::Counted<Of>::kCounterparts,
                                    detail::Receive<Matched>(std::move(callable)), {delivery})) {}

  // Invokes the callable in drains of the inbox.
  template <typename Of, typename Callable,
            bridge::BridgeType kType = detail::Counted<Of>::kBridgeType,
            detail::IfCallable<Callable> = 0>
  [[nodiscard]] Presence(const Of& of, Callable callable, Inbox& inbox)
      : state_(detail::MakePresence({of.name, kType}, detail::Counted<Of>::kCounterparts,
                                    detail::Receive<Matched>(std::move(callable)),
                                    {Delivery::Queued, &inbox})) {}

  // Returns what is known now, even if the callable has not been invoked with it yet; it will be.
  // A moved-from presence knows nothing.
  Matched Now() const { return state_ == nullptr ? Matched() : detail::Now(*state_); }

  // Any other arguments: says what is wrong.
  template <
      typename Given, typename... More,
      detail::IfMistaken<detail::Takes::kCallableOrNothing, detail::Unknown, Given, More...> = 0>
  explicit Presence(Given&&, More&&...) {
    static_cast<void>(
        detail::Mistake<detail::Takes::kCallableOrNothing, detail::Unknown, Given, More...>());
  }

 private:
  detail::Owned<detail::PresenceState> state_;
};

}  // namespace zorvix

#endif  // ZORVIX_PRESENCE_H_
