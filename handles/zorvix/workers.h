// Threads that drain the bridge's queue.
//
//   #include <zorvix/workers.h>
//
//   #include <chrono>
//   #include <cstdlib>
//
//   int main() {
//     zorvix::Workers workers(2);
//     // ... load the modules, run the app ...
//     if (!workers.Stop(std::chrono::seconds(5))) std::_Exit(1);  // the destructor would wait
//   }
#ifndef ZORVIX_WORKERS_H_
#define ZORVIX_WORKERS_H_

#include <zorvix/timeout.h>
#include <zorvix/zorvix.h>

namespace zorvix {

// Drains the bridge's queue on worker threads. Stop: ends them.
//
// There may be several objects, even of several modules. All workers drain the one queue, and go on
// until the last object is stopped or destroyed. Zorvix::StopSpin asks all workers of the process
// to end, whichever object has started them. A static object is destroyed at process exit before
// the bridge.
class ZORVIX_EXPORT Workers {
 public:
  // Starts that many workers, and one thread that waits for them. Traces and debuggers show all of
  // them as "zorvix worker". Does not block: the workers begin later. If a Stop has timed out and
  // its workers have not ended, they begin up to 0.2 s later, and this object owns the old workers,
  // too.
  //
  // Any thread may construct it. Throws std::invalid_argument if `count` is 0, and
  // std::system_error if the thread cannot be started. A worker that cannot be started ends the
  // process.
  [[nodiscard]] explicit Workers(unsigned long count);

  // As Stop().
  ~Workers();
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  // Asks the workers to end, and blocks until they have ended. Returns immediately if the workers
  // are left to other objects, or have been ended by StopSpin. Any thread may call it, also several
  // at the same time.
  //
  // A worker ends when it finds the queue empty: that is never while tasks post tasks or are posted
  // faster than they are invoked, so first stop whatever posts tasks. A worker that has not begun
  // invokes no task. After each second of waiting, logs a WARN for each callable in progress, with
  // its kind, name and module, or one for all tasks if none of them is inside a handle's callable.
  // REQUIRES: this thread is not a worker. There, Stop never returns.
  void Stop();

  // As Stop(), but blocks for at most `timeout`. Returns whether the workers have ended, or are
  // left to others. Called again, it waits again.
  //
  // Once `timeout` is over, no thread begins a callable of a queued handle (Delivery::Queued) until
  // the workers have ended, or new Workers are constructed. What is pending stays pending, in
  // order: SpinOnce invokes it when the workers have ended. The other tasks of the queue, those of
  // Async endpoints, are invoked all the same. A callable in progress that waits for another queued
  // one then waits forever: give its call a timeout, too.
  //
  // Until the workers have ended, another thread asks them again. If that thread cannot be started,
  // Stop asks them itself, and may return late.
  bool Stop(Timeout timeout);

 private:
  bool is_owner_ = true;
};

}  // namespace zorvix

#endif  // ZORVIX_WORKERS_H_
