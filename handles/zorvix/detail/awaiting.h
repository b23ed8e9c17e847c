// What a module compiles of a call whose answer comes later. Not for users.
#ifndef ZORVIX_DETAIL_AWAITING_H_
#define ZORVIX_DETAIL_AWAITING_H_

#include <zorvix/detail/erasure.h>

#include <future>
#include <optional>
#include <utility>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

// The callable of a call, and its answer.
template <typename Response, typename User>
struct Awaiting {
  // A callable that takes the answer by value gets what TakeAnswer returns, without a further
  // move that could throw: it is invoked in any case.
  void operator()() { static_cast<void>(callable(TakeAnswer())); }
  std::optional<Response> TakeAnswer() {
    try {
      return std::move(answer);
    } catch (...) {
      return std::nullopt;
    }
  }
  static constexpr bool kHasAnswer = true;
  User callable;
  std::optional<Response> answer = std::nullopt;
};

template <typename Response, typename User>
Function<> Await(User callable) {
  return Function<>(std::in_place_type<Awaiting<Response, User>>, std::move(callable));
}

// Makes a future ready. If the answer cannot be moved into it, it has none.
template <typename Response>
struct Promised {
  void operator()(std::optional<Response> answer) {
    try {
      promise.set_value(std::move(answer));
    } catch (...) {
      promise.set_value(std::nullopt);
    }
  }
  std::promise<std::optional<Response>> promise;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_AWAITING_H_
