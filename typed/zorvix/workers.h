// Threads that drain the bridge's queue.
#ifndef ZORVIX_WORKERS_H_
#define ZORVIX_WORKERS_H_

#include <zorvix/detail/base.h>

#include <thread>

namespace zorvix {

namespace detail ZORVIX_HIDDEN {

// Runs Spin on a thread of its own. In a hidden class, since a lambda in a visible one would leave
// the standard library's code for threads visible.
class SpinThread {
 public:
  explicit SpinThread(unsigned long workers) : thread_(&SpinThread::Run, this, workers) {}
  ~SpinThread() {
    // A stop may come before Spin has begun, and gives up while a task takes long.
    std::chrono::milliseconds pause(1);
    while (!HasReturned(pause)) {
      Bridge().StopSpin();
      pause *= 2;
    }
    thread_.join();
  }
  SpinThread(const SpinThread&) = delete;
  SpinThread& operator=(const SpinThread&) = delete;

 private:
  // Ends the process if a worker cannot be started.
  void Run(unsigned long workers) noexcept {
    Bridge().Spin(workers);
    const std::lock_guard lock(mutex_);
    has_returned_ = true;
    returned_.notify_all();
  }
  bool HasReturned(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return returned_.wait_for(lock, limit, [this] { return has_returned_; });
  }

  std::mutex mutex_;
  std::condition_variable returned_;
  bool has_returned_ = false;
  std::thread thread_;
};

}  // namespace detail

// Drains the bridge's queue on worker threads.
//
// StopSpin stops every worker in the process, whichever Workers object or Spin call started it, and
// the destructor of this class calls it. Keep one object for the process.
class Workers {
 public:
  // Starts that many workers, and one thread that waits for them. Throws std::system_error if that
  // thread cannot be started; a worker that cannot be started ends the process.
  [[nodiscard]] ZORVIX_HIDDEN explicit Workers(unsigned long count) {
    detail::Bridge();  // built before a static object of this class, so it is destroyed later
    thread_ = std::make_shared<detail::SpinThread>(count);
  }
  // Stops the workers and blocks until they have ended. A worker ends when it finds the queue
  // empty: never, while tasks post tasks or are posted faster than they run, so first stop whatever
  // posts tasks. A worker that has not begun yet runs no task. Must not be called by a task on a
  // worker.
  ZORVIX_HIDDEN ~Workers() = default;
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

 private:
  std::shared_ptr<void> thread_;
};

}  // namespace zorvix

#endif  // ZORVIX_WORKERS_H_
