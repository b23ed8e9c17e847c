// Checks of what users pass to handles, so that the first error of the compiler says what is wrong.
// Not for users.
//
// A handle has a constructor for each mistake that would otherwise match none. It takes what users
// pass by mistake, and nothing else, so it never competes with the correct constructors.
#ifndef ZORVIX_DETAIL_CHECKS_H_
#define ZORVIX_DETAIL_CHECKS_H_

#include <zorvix/delivery.h>
#include <zorvix/name.h>

#include <type_traits>

// For what is compiled into each module: no module may bind to another one's copy, which could be
// unloaded.
#define ZORVIX_HIDDEN __attribute__((visibility("hidden")))

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

template <typename Value>
constexpr bool kIsValue = std::is_same_v<Value, std::decay_t<Value>>&&
    std::is_copy_constructible_v<Value>&& std::is_move_constructible_v<Value>;

template <typename Callable, typename Argument>
struct CheckCallable {
  using Mutable = std::remove_cv_t<std::remove_reference_t<Argument>>&;
  using TakesArgument = std::is_invocable<Callable&, Argument>;
  static_assert(TakesArgument::value || !std::is_member_function_pointer_v<Callable>,
                "a member function needs an object: pass a lambda that calls it");
  // A disjunction instantiates a generic callable with a mutable argument only if need be.
  static_assert(
      std::disjunction_v<TakesArgument, std::negation<std::is_invocable<Callable&, Mutable>>>,
      "the callable takes a non-const reference: let it take a const reference");
  static_assert(std::is_invocable_v<Callable&, Argument>,
                "the callable cannot be invoked with what the handle passes to it");
};

// A server's callable takes a reply if it cannot be invoked without one.
template <typename Callable, typename Request, typename Reply>
constexpr bool kAnswersLater = !std::is_invocable_v<Callable&, const Request&> &&
                               std::is_invocable_v<Callable&, const Request&, Reply>;

template <typename Callable, typename Request, typename Response>
struct CheckServer : CheckCallable<Callable, const Request&> {
  static_assert(std::is_invocable_r_v<Response, Callable&, const Request&>,
                "the callable of a server must return a Response");
};

template <typename Option>
constexpr bool kIsDepth = std::is_integral_v<Option> || std::is_convertible_v<Option, KeepLast>;

// The options after a callable: in the wrong order, or with a number as the depth.
template <typename Where, typename Depth>
using IfMistaken = std::enable_if_t<kIsDepth<Where> || std::is_integral_v<Depth>, int>;

template <typename Where, typename Depth>
struct CheckOptions {
  static_assert(!kIsDepth<Where>, "a depth needs an inbox or Delivery::Queued before it");
  static_assert(!std::is_integral_v<Depth>, "write the depth as KeepLast{n}, not as a number");
};

// Given has a name, as a Topic, Service or State has, but is not what the handle wants.
template <typename Given, typename Wanted>
using IfOther = std::enable_if_t<std::is_same_v<decltype(Given::name), EndpointName> &&
                                     !std::is_convertible_v<const Given&, const Wanted&>,
                                 int>;

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_CHECKS_H_
