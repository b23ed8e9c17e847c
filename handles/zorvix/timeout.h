// How long a function waits.
#ifndef ZORVIX_TIMEOUT_H_
#define ZORVIX_TIMEOUT_H_

#include <zorvix/zorvix.h>

#include <chrono>
#include <ratio>

namespace zorvix {

namespace detail {

constexpr std::chrono::nanoseconds kForever = std::chrono::nanoseconds::max();

template <typename Duration>
constexpr std::chrono::nanoseconds ClampTimeout(const Duration& time) {
  // Compared as numbers that no duration overflows.
  using Hours = std::chrono::duration<double, std::ratio<3600>>;
  constexpr Hours kTenYears(87'600);
  if (Hours(time) >= kTenYears) return kForever;
  if (!(time > Duration::zero())) return std::chrono::nanoseconds::zero();
  return std::chrono::ceil<std::chrono::nanoseconds>(time);
}

}  // namespace detail

// Any std::chrono::duration. A negative one is zero, and one of ten years or more is forever.
class Timeout {
 public:
  template <typename Number, typename Period>
  constexpr Timeout(const std::chrono::duration<Number, Period>& time)
      : time_(detail::ClampTimeout(time)) {}

  static constexpr Timeout Forever() { return detail::kForever; }
  constexpr bool IsForever() const { return time_ == detail::kForever; }
  constexpr std::chrono::nanoseconds time() const { return time_; }

 private:
  std::chrono::nanoseconds time_;
};

}  // namespace zorvix

#endif  // ZORVIX_TIMEOUT_H_
