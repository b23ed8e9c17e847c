// What a module compiles of a call whose answer comes later. Not for users.
#ifndef ZORVIX_DETAIL_AWAITING_H_
#define ZORVIX_DETAIL_AWAITING_H_

#include <zorvix/answer.h>
#include <zorvix/detail/erasure.h>

#include <future>
#include <optional>
#include <type_traits>
#include <utility>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

// Whether a callable is a template, such as a lambda with an auto parameter.
template <typename User, typename = void>
constexpr bool kIsGeneric = std::is_class_v<User>;
template <typename User>
constexpr bool kIsGeneric<User, std::void_t<decltype(&User::operator())>> = false;

// Whether a callable takes a std::optional<Response>, and not the Answer.
template <typename Response>
struct OnlyOptional {
  operator std::optional<Response>() const;
};
template <typename User, typename Response>
constexpr bool kTakesOptional =
    std::conjunction_v<std::bool_constant<!kIsGeneric<User>>,
                       std::is_invocable<User&, OnlyOptional<Response>>>;

// The callable of a call, and its answer.
template <typename Response, typename User>
struct Awaiting {
  // A callable that takes the answer by value gets what is returned here, without a further move
  // that could throw: it is invoked in any case.
  void operator()() {
    if constexpr (kTakesOptional<User, Response>) {
      static_cast<void>(callable(TakeOptional()));
    } else {
      static_cast<void>(callable(TakeAnswer()));
    }
  }
  zorvix::Answer<Response> TakeAnswer() {
    try {
      return std::move(answer);
    } catch (...) {
      return {std::nullopt, Why::Threw};
    }
  }
  std::optional<Response> TakeOptional() {
    try {
      return std::move(static_cast<std::optional<Response>&>(answer));
    } catch (...) {
      return std::nullopt;
    }
  }
  static constexpr bool kHasAnswer = true;
  User callable;
  zorvix::Answer<Response> answer = {};
};

template <typename Response, typename User>
Function<> Await(User callable) {
  return Function<>(std::in_place_type<Awaiting<Response, User>>, std::move(callable));
}

// Makes a future ready. If the answer cannot be moved into it, it has none.
template <typename Response>
struct Promised {
  void operator()(zorvix::Answer<Response> answer) {
    try {
      promise.set_value(std::move(answer));
    } catch (...) {
      promise.set_value({std::nullopt, Why::Threw});
    }
  }
  std::promise<zorvix::Answer<Response>> promise;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_AWAITING_H_
