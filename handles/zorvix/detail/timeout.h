// What a Timeout is made of. Not for users.
#ifndef ZORVIX_DETAIL_TIMEOUT_H_
#define ZORVIX_DETAIL_TIMEOUT_H_

#include <zorvix/zorvix.h>

#include <chrono>
#include <ratio>

namespace zorvix::detail {

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

}  // namespace zorvix::detail

#endif  // ZORVIX_DETAIL_TIMEOUT_H_
