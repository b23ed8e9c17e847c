// What threads share: mutex, lock, condition variable, atomics, threads and the clock. Clang's
// thread safety analysis follows the locks, even where a function unlocks in the middle.
#ifndef ZORVIX_HANDLES_SYNC_H_
#define ZORVIX_HANDLES_SYNC_H_

#include <time.h>
#include <zorvix/zorvix.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#ifdef ZORVIX_SCHEDULER
#include <schedule.h>
#endif

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

// A test explores the interleavings of threads with a scheduler, which has all that is named here.
#ifdef ZORVIX_SCHEDULER
namespace sync = ::schedule;
#else
namespace sync = ::std;
#endif
// Numbers that are only shown, such as those of Inspect, are a std::atomic.
template <typename Value>
using Atomic = sync::atomic<Value>;
using Thread = sync::thread;
namespace this_thread = sync::this_thread;
using Clock = sync::chrono::steady_clock;
constexpr auto kNever = Clock::time_point::max();

// Returns the time as of a few milliseconds ago, for a sixth of the price.
inline Clock::time_point CoarseNow() {
#ifdef ZORVIX_SCHEDULER
  return Clock::now();
#else
  timespec time;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
  return Clock::time_point(std::chrono::seconds(time.tv_sec) +
                           std::chrono::nanoseconds(time.tv_nsec));
#endif
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
  sync::mutex mutex_;
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
  sync::mutex& mutex_;
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
  sync::condition_variable condition_;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_SYNC_H_
