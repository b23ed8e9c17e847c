// The mutex, lock and condition variable of the library. Clang's thread safety analysis follows
// them, even where a function unlocks in the middle.
#ifndef ZORVIX_HANDLES_SYNC_H_
#define ZORVIX_HANDLES_SYNC_H_

#include <time.h>
#include <zorvix/zorvix.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

// As ZORVIX_GUARDED_BY and ZORVIX_REQUIRES in zorvix.h.
#if defined(_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS) && __has_attribute(guarded_by)
#define ZORVIX_ANALYSIS(attribute) __attribute__((attribute))
#else
#define ZORVIX_ANALYSIS(attribute)
#endif
#define ZORVIX_CAPABILITY ZORVIX_ANALYSIS(capability("mutex"))
#define ZORVIX_SCOPED_CAPABILITY ZORVIX_ANALYSIS(scoped_lockable)
#define ZORVIX_ACQUIRE(...) ZORVIX_ANALYSIS(acquire_capability(__VA_ARGS__))
#define ZORVIX_RELEASE() ZORVIX_ANALYSIS(release_capability())
#define ZORVIX_ASSERT_HELD ZORVIX_ANALYSIS(assert_capability(this))
#define ZORVIX_EXCLUDES(mutex) ZORVIX_ANALYSIS(locks_excluded(mutex))
#define ZORVIX_NOT_ANALYSED ZORVIX_ANALYSIS(no_thread_safety_analysis)

namespace zorvix::detail {

using Clock = std::chrono::steady_clock;
constexpr auto kNever = Clock::time_point::max();

// Returns the time as of a few milliseconds ago, for a sixth of the price.
inline Clock::time_point CoarseNow() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
  return Clock::time_point(std::chrono::seconds(time.tv_sec) +
                           std::chrono::nanoseconds(time.tv_nsec));
}

class ZORVIX_CAPABILITY Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // For code that knows that its caller holds the mutex, where the analysis cannot know.
  void AssertHeld() const ZORVIX_ASSERT_HELD {}

 private:
  friend class Lock;
  std::mutex mutex_;
};

class ZORVIX_SCOPED_CAPABILITY Lock {
 public:
  explicit Lock(Mutex& mutex) ZORVIX_ACQUIRE(mutex) ZORVIX_NOT_ANALYSED : mutex_(mutex.mutex_) {
    mutex_.lock();
  }
  ~Lock() ZORVIX_RELEASE() ZORVIX_NOT_ANALYSED {
    if (is_held_) mutex_.unlock();
  }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  void Unlock() ZORVIX_RELEASE() ZORVIX_NOT_ANALYSED {
    mutex_.unlock();
    is_held_ = false;
  }
  void Relock() ZORVIX_ACQUIRE() ZORVIX_NOT_ANALYSED {
    mutex_.lock();
    is_held_ = true;
  }

 private:
  friend class Condition;
  std::mutex& mutex_;
  bool is_held_ = true;
};

// Waits in a loop that tests what it waits for, since any wait may end early.
class Condition {
 public:
  void Wait(Lock& lock) {
    std::unique_lock held(lock.mutex_, std::adopt_lock);
    condition_.wait(held);
    held.release();
  }
  // Returns false if the time is over.
  bool WaitUntil(Lock& lock, Clock::time_point end) {
    if (end == kNever) {
      Wait(lock);
      return true;
    }
    std::unique_lock held(lock.mutex_, std::adopt_lock);
    const std::cv_status status = condition_.wait_until(held, end);
    held.release();
    return status == std::cv_status::no_timeout;
  }
  void NotifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_SYNC_H_
