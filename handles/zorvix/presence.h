// Tells how many subscribers a topic has, how many servers a service, how many holders a state
// (similar to the matched events of DDS).
//
//   #include <zorvix/inbox.h>
//   #include <zorvix/presence.h>
//
//   inline constexpr zorvix::Topic<float> kLevels{"levels"};
//
//   class Meter {
//    public:
//     explicit Meter(zorvix::Inbox& inbox)
//         : viewers_(kLevels, [this](const zorvix::Matched& now) { is_on_ = now.count != 0; },
//                    inbox) {}
//
//    private:
//     bool is_on_ = false;
//     const zorvix::Presence viewers_;  // the last member, so destroyed first
//   };
//
// Matched. Presence: Now.
//
// Counts handles of all modules, of any message type, and replaced servers and holders, too.
// Subscribers and servers that are registered through zorvix.h are not seen. A handle counts from
// when its registration is complete until it has unregistered.
#ifndef ZORVIX_PRESENCE_H_
#define ZORVIX_PRESENCE_H_

#include <zorvix/delivery.h>
#include <zorvix/detail/counted.h>
#include <zorvix/detail/library.h>
#include <zorvix/detail/mistakes.h>

#include <cstddef>
#include <cstdint>
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

// Any thread may use it. In its constructors, `of` is a Topic, a Service or a State.
class [[nodiscard]] Presence {
 public:
  // Without a callable.
  template <typename Of, bridge::BridgeType kType = detail::Counted<Of>::kBridgeType>
  [[nodiscard]] explicit Presence(const Of& of)
      : state_(detail::MakePresence({of.name, kType}, detail::Counted<Of>::kCounterparts, {}, {})) {
  }

  // Invokes callable(const Matched&) with the present count, and after each change with the latest
  // one, one at a time. Changes in between may be skipped, the last one never. The callable may
  // construct and destroy handles of the same name.
  //
  // With Delivery::Direct, the default, inside the constructor or destructor of a counterpart,
  // which blocks meanwhile, and first inside this constructor. If another thread is inside the
  // callable then, the counterpart's function returns, and that thread invokes the callable again.
  // An exception that is no std::exception ends the process, except in the first invocation, where
  // it leaves this constructor. It must not take locks that others hold while they construct or
  // destroy counterparts. With Delivery::Queued, where the bridge's queue is drained.
  template <typename Of, typename Callable,
            bridge::BridgeType kType = detail::Counted<Of>::kBridgeType,
            detail::IfCallable<Callable> = 0>
  [[nodiscard]] Presence(const Of& of, Callable callable, Delivery delivery = Delivery::Direct)
      : state_(detail::MakePresence({of.name, kType}, detail::Counted<Of>::kCounterparts,
                                    detail::Receive<Matched>(std::move(callable)), {delivery})) {}

  // Does the same in drains of `inbox`.
  template <typename Of, typename Callable,
            bridge::BridgeType kType = detail::Counted<Of>::kBridgeType,
            detail::IfCallable<Callable> = 0>
  [[nodiscard]] Presence(const Of& of, Callable callable, Inbox& inbox)
      : state_(detail::MakePresence({of.name, kType}, detail::Counted<Of>::kCounterparts,
                                    detail::Receive<Matched>(std::move(callable)),
                                    {Delivery::Queued, &inbox})) {}

  // Returns what is known now, even if the callable has not been invoked with it yet; it will be.
  // Does not block. A moved-from presence returns zeros.
  Matched Now() const { return state_ == nullptr ? Matched() : detail::Now(*state_); }

  // Other arguments: a compile error that says what is wrong.
  template <
      typename Given, typename... More,
      detail::IfMistaken<detail::Takes::kCallableOrNothing, detail::Unknown, Given, More...> = 0>
  explicit Presence(Given&&, More&&...) {
    detail::Explain<detail::Takes::kCallableOrNothing, detail::Unknown, Given, More...>();
  }

 private:
  detail::Owned<detail::PresenceState> state_;
};

}  // namespace zorvix

#endif  // ZORVIX_PRESENCE_H_
