// The mutex, lock and condition variable of the library. Clang's thread safety analysis follows
// them, even where a function unlocks in the middle.
#ifndef ZORVIX_HANDLES_SYNC_H_
#define ZORVIX_HANDLES_SYNC_H_

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
  explicit Lock(Mutex& mutex) ZORVIX_ACQUIRE(mutex) ZORVIX_NOT_ANALYSED : lock_(mutex.mutex_) {}
  ~Lock() ZORVIX_RELEASE() ZORVIX_NOT_ANALYSED = default;
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  void Unlock() ZORVIX_RELEASE() ZORVIX_NOT_ANALYSED { lock_.unlock(); }
  void Relock() ZORVIX_ACQUIRE() ZORVIX_NOT_ANALYSED { lock_.lock(); }

 private:
  friend class Condition;
  std::unique_lock<std::mutex> lock_;
};

// Waits in a loop that tests what it waits for, since any wait may end early.
class Condition {
 public:
  void Wait(Lock& lock) { condition_.wait(lock.lock_); }
  // Returns false if the time is over.
  bool WaitUntil(Lock& lock, Clock::time_point end) {
    return condition_.wait_until(lock.lock_, end) == std::cv_status::no_timeout;
  }
  void NotifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_SYNC_H_
