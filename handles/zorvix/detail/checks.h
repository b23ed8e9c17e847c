// Checks of what users pass to handles, so that the first error of the compiler says what is wrong.
// Not for users.
#ifndef ZORVIX_DETAIL_CHECKS_H_
#define ZORVIX_DETAIL_CHECKS_H_

#include <zorvix/zorvix.h>

#include <type_traits>

#ifndef __cpp_exceptions
#error "zorvix: compile every file with exceptions (without -fno-exceptions)"
#endif

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

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_CHECKS_H_
