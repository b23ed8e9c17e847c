// Says what is wrong with the arguments of a handle, in the first error of the compiler. Not for
// users.
//
// Each handle has a constructor for the arguments that no other one takes, if the first of them is
// a Topic, Service or State, or a name. So it never competes with the correct constructors. A
// deduction guide that takes anything leads there when the type of the handle is left out.
#ifndef ZORVIX_DETAIL_MISTAKES_H_
#define ZORVIX_DETAIL_MISTAKES_H_

#include <zorvix/delivery.h>
#include <zorvix/detail/checks.h>
#include <zorvix/detail/library.h>
#include <zorvix/zorvix.h>

#include <string_view>
#include <type_traits>

namespace zorvix {

class Inbox;
template <typename Message, bridge::BridgeType kType>
struct Topic;
template <typename Request, typename Response, bridge::BridgeType kType>
struct Service;
template <typename Value>
struct State;

namespace detail ZORVIX_HIDDEN {

// The message, request, response or value of a handle whose type cannot be deduced.
struct Unknown {};

template <typename Given>
using Plain = std::remove_cv_t<std::remove_reference_t<Given>>;

enum class Kind { kTopic, kService, kState, kName, kOther };
template <typename Given>
constexpr Kind kKind =
    std::is_convertible_v<const Given&, std::string_view> ? Kind::kName : Kind::kOther;
template <typename Message, bridge::BridgeType kType>
constexpr Kind kKind<Topic<Message, kType>> = Kind::kTopic;
template <typename Request, typename Response, bridge::BridgeType kType>
constexpr Kind kKind<Service<Request, Response, kType>> = Kind::kService;
template <typename Value>
constexpr Kind kKind<State<Value>> = Kind::kState;

template <typename Wanted>
constexpr bool kIsUnknown = false;
template <>
inline constexpr bool kIsUnknown<Topic<Unknown, bridge::BridgeType::Sync>> = true;
template <>
inline constexpr bool kIsUnknown<Service<Unknown, Unknown, bridge::BridgeType::Sync>> = true;
template <>
inline constexpr bool kIsUnknown<State<Unknown>> = true;

// Whether a handle of Wanted can be constructed with Given. Unknown: any kind will do.
template <typename Wanted, typename Given>
constexpr bool kMatches = std::is_convertible_v<Given, const Wanted&>;
template <typename Given>
constexpr bool kMatches<Unknown, Given> = kKind<Plain<Given>> <= Kind::kState;

// What a kind of handle takes after its Topic, Service or State.
enum class Takes {
  kNothing,
  kAudience,           // or nothing
  kPlace,              // nothing, or where callables are invoked, and a depth
  kCallable,           // and perhaps a place and a depth
  kCallableOrNothing,  // and perhaps a place
};

template <typename Given>
constexpr bool kIsPlace =
    std::is_convertible_v<Given, Inbox&> || std::is_convertible_v<Given, Delivery>;
template <typename Given>
constexpr bool kIsDepth =
    std::is_integral_v<Plain<Given>> || std::is_convertible_v<Given, KeepLast>;
template <typename Given>
constexpr bool kIsInbox = std::is_same_v<std::remove_pointer_t<Plain<Given>>, Inbox>;
template <typename Given>
constexpr bool kIsOption = kIsInbox<Given> || kIsPlace<Given> || kIsDepth<Given>;

template <typename...>
constexpr bool kBeginsWithOption = true;
template <typename First, typename... More>
constexpr bool kBeginsWithOption<First, More...> = kIsOption<First>;

template <typename... Given>
constexpr bool kArePlaceAndDepth = sizeof...(Given) == 0;
template <typename Where>
constexpr bool kArePlaceAndDepth<Where> = kIsPlace<Where>;
template <typename Where, typename Depth>
constexpr bool kArePlaceAndDepth<Where, Depth> =
    kIsPlace<Where>&& std::is_convertible_v<Depth, KeepLast>;

template <Takes kTakes, typename First, typename... More>
constexpr bool Fit() {
  switch (kTakes) {
    case Takes::kNothing:
      return false;
    case Takes::kAudience:
      return std::is_convertible_v<First, Audience> && sizeof...(More) == 0;
    case Takes::kPlace:
      return kArePlaceAndDepth<First, More...>;
    case Takes::kCallable:
      return !kIsOption<First> && kArePlaceAndDepth<More...>;
    case Takes::kCallableOrNothing:
      return !kIsOption<First> && kArePlaceAndDepth<More...> && sizeof...(More) < 2;
  }
}
template <Takes kTakes>
constexpr bool Fit() {
  return kTakes != Takes::kCallable;
}

// Enables a constructor with a callable.
template <typename User>
using IfCallable = std::enable_if_t<!kIsOption<User&>, int>;

// Enables the constructor for mistakes.
template <Takes kTakes, typename Wanted, typename Given, typename... More>
using IfMistaken = std::enable_if_t<kKind<Plain<Given>> != Kind::kOther &&
                                        !(kMatches<Wanted, Given> && Fit<kTakes, More...>()),
                                    int>;

template <typename Wanted, typename Given>
struct CheckEndpoint {
  static constexpr Kind kWanted = kKind<Wanted>;
  static constexpr Kind kGiven = kKind<Plain<Given>>;
  static constexpr bool kIsOther = kGiven != Kind::kName && kGiven != kWanted;
  static_assert(kGiven != Kind::kName, "pass a Topic, a Service or a State, not its name");
  static_assert(!kIsOther || kWanted != Kind::kTopic, "a publisher or subscriber needs a Topic");
  static_assert(!kIsOther || kWanted != Kind::kService, "a client or server needs a Service");
  static_assert(!kIsOther || kWanted != Kind::kState, "a holder or watcher needs a State");
  static_assert(kGiven != kWanted || kIsUnknown<Wanted> || kMatches<Wanted, Given>,
                "the Topic, Service or State is of another type than the handle");
};

template <Takes kTakes, typename... More>
struct CheckArguments {
  static constexpr bool kTakesCallable =
      kTakes == Takes::kCallable || kTakes == Takes::kCallableOrNothing;
  static_assert(!kTakesCallable || !kBeginsWithOption<More...>,
                "a callable is missing: it is the second argument");
  static_assert((!std::is_convertible_v<More, const Inbox*> && ...),
                "pass the inbox itself, not its address");
  static_assert(((!kIsInbox<More> || std::is_convertible_v<More, Inbox&>)&&...),
                "the inbox must be neither const nor a temporary");
  static_assert(kTakes != Takes::kCallableOrNothing || !(kIsDepth<More> || ...),
                "a watcher or presence takes no depth: it has the latest value only");
  static_assert((!std::is_integral_v<Plain<More>> && ...),
                "write the depth as KeepLast{n}, not as a number");
  static_assert(!(kIsDepth<More> || ...), "a depth needs an inbox or Delivery::Queued before it");
  static_assert(Fit<kTakes, More...>(), "no constructor takes these arguments");
};

// To be called in that constructor.
template <Takes kTakes, typename Wanted, typename Given, typename... More>
constexpr void Explain() {
  static_cast<void>(CheckEndpoint<Wanted, Given>());
  static_cast<void>(CheckArguments<kTakes, More...>());
}

// Return the place, which only endpoints of the topic kind Sync have, and the audience.
template <bridge::BridgeType kType>
constexpr Place At(Delivery delivery) {
  static_assert(kType == bridge::BridgeType::Sync,
                "only a Sync topic or service has a choice of delivery");
  return {delivery};
}
template <bridge::BridgeType kType>
constexpr Place At(Inbox& inbox) {
  static_assert(kType == bridge::BridgeType::Sync,
                "only a Sync topic or service can have an inbox");
  return {Delivery::Queued, &inbox};
}
template <bridge::BridgeType kType>
constexpr Audience Checked(Audience audience) {
  static_assert(kType == bridge::BridgeType::Sync,
                "the audience can be chosen for a Sync topic only");
  return audience;
}

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_MISTAKES_H_
