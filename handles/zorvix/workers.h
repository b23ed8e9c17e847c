// Threads that drain the bridge's queue.
#ifndef ZORVIX_WORKERS_H_
#define ZORVIX_WORKERS_H_

#include <zorvix/zorvix.h>

#include <memory>

namespace zorvix {

namespace detail {
class SpinThread;
}

// Drains the bridge's queue on worker threads.
//
// StopSpin stops every worker in the process, whichever Workers object or Spin call started it, and
// the destructor of this class calls it. Keep one object for the process.
class ZORVIX_EXPORT Workers {
 public:
  // Starts that many workers, and one thread that waits for them. Throws std::system_error if that
  // thread cannot be started; a worker that cannot be started ends the process.
  [[nodiscard]] explicit Workers(unsigned long count);
  // Stops the workers and blocks until they have ended. A worker ends when it finds the queue
  // empty: never, while tasks post tasks or are posted faster than they run, so first stop whatever
  // posts tasks. A worker that has not begun yet runs no task. Must not be called by a task on a
  // worker.
  ~Workers();
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

 private:
  std::unique_ptr<detail::SpinThread> thread_;
};

}  // namespace zorvix

#endif  // ZORVIX_WORKERS_H_
