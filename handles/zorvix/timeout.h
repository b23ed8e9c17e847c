// How long a function waits.
//
//   #include <zorvix/inbox.h>
//
//   #include <chrono>
//
//   bool WaitForTasks(const zorvix::Inbox& inbox) { return inbox.Wait(std::chrono::seconds(1)); }
#ifndef ZORVIX_TIMEOUT_H_
#define ZORVIX_TIMEOUT_H_

#include <zorvix/detail/timeout.h>

#include <chrono>

namespace zorvix {

// Any std::chrono::duration. A negative one is zero, and one of ten years or more is forever.
// Measured by std::chrono::steady_clock, which stands still while an Android device sleeps.
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
