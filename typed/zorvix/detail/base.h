// What all headers beside this one need. Not for users.
#ifndef ZORVIX_DETAIL_BASE_H_
#define ZORVIX_DETAIL_BASE_H_

#include <zorvix/zorvix.h>

#include <chrono>

// No module may bind to another module's copy of a function that these headers define, or it could
// not be unloaded on its own. Types stay visible, because classes of users have handles as members,
// but functions do not. Clang ignores the attribute on a constructor template; an inlined function
// leaves no symbol either.
#define ZORVIX_HIDDEN __attribute__((visibility("hidden")))
#define ZORVIX_INLINED __attribute__((always_inline))
#define ZORVIX_MOVE_ONLY(Handle)                                \
  ZORVIX_HIDDEN Handle(Handle&&) noexcept = default;            \
  ZORVIX_HIDDEN Handle& operator=(Handle&&) noexcept = default; \
  ZORVIX_HIDDEN ~Handle() = default

// Logs with the path under which users include the header. __FILE__ would be the path under which
// their compiler found it, and would end up in their binaries.
#define ZORVIX_LOG(header, priority, ...) \
  ::bridge::WriteLog(priority, "zorvix/" header, __LINE__, __VA_ARGS__)

// For functions that unlock in the middle, which clang's -Wthread-safety cannot follow.
#if defined(__clang__)
#define ZORVIX_NO_THREAD_SAFETY_ANALYSIS __attribute__((no_thread_safety_analysis))
#else
#define ZORVIX_NO_THREAD_SAFETY_ANALYSIS
#endif

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

inline bridge::Zorvix& Bridge() { return bridge::Zorvix::GetInstance(); }

using Clock = std::chrono::steady_clock;

// Returns the end of a wait. A negative limit stands for no limit, which is a time so far away that
// adding it does not overflow.
inline Clock::time_point Deadline(std::chrono::milliseconds limit) {
  constexpr std::chrono::milliseconds kYears = std::chrono::hours(87'600);
  if (limit.count() < 0 || limit > kYears) limit = kYears;
  return Clock::now() + limit;
}

// Shares an object with callbacks of the bridge, and closes it when it is destroyed.
template <typename Closable>
class Owner {
 public:
  explicit Owner(std::shared_ptr<Closable> closable) : closable_(std::move(closable)) {}
  ~Owner() { closable_->Close(); }
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;
  const std::shared_ptr<Closable>& operator*() const { return closable_; }
  Closable* operator->() const { return closable_.get(); }

 private:
  const std::shared_ptr<Closable> closable_;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_BASE_H_
