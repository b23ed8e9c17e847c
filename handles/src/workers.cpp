#include <zorvix/workers.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "dispatcher.h"
#include "endpoint.h"
#include "sync.h"
#include "threads.h"
#include "waits.h"

namespace zorvix::detail {
namespace {

constexpr std::chrono::seconds kSecond(1);

// Calls StopSpin once, and returns the pause before the next time, given the last one. If StopSpin
// finds no worker, it returns early: the workers have not begun, and Spin resets the stop when they
// do. If it finds workers, they end when the queue is empty, unless another Spin resets the stop.
std::chrono::milliseconds StopSpin(std::chrono::milliseconds pause) {
  const auto begin = Clock::now();
  Bridge().StopSpin();
  const bool found_workers = Clock::now() - begin > std::chrono::milliseconds(100);
  if (found_workers) return kSecond;
  return std::min<std::chrono::milliseconds>(2 * pause, kSecond);
}

// Logs the callables that tasks are inside: those of SpinOnce are not told apart.
void LogWaiting() {
  std::vector<Running> running;
  try {
    running = RunningInTasks();
  } catch (const std::bad_alloc&) {  // the line below tells less
  }
  for (const auto& callable : running) {
    BRIDGE_LOG(
        bridge::kLogWarn, "workers wait for a callable to return, kind: %s, name: %s, module: %s%s",
        callable.kind, callable.name.c_str(), callable.module, ThreadPart(callable.thread).c_str());
  }
  if (running.empty()) BRIDGE_LOG(bridge::kLogWarn, "workers wait for a task to return");
}

// The workers of all Workers objects. There is one in the process, which is never destroyed, since
// static Workers may be destroyed after it.
//
// A thread for each Workers object calls Spin. If no owner is left, one more thread calls StopSpin,
// which blocks, until all Spins have returned or there is an owner again.
class Pool {
 public:
  static Pool& Get() {
    static Pool& pool = *new Pool;
    return pool;
  }

  // Adds an owner with its workers. Throws std::invalid_argument and std::system_error.
  void Add(unsigned long workers) {
    if (workers == 0) throw std::invalid_argument("there must be at least 1 worker");
    const Lock lock(mutex_);
    threads_.emplace_back(&Pool::Spin, this, workers);
    ++spinning_;
    workers_ += workers;
    ++owners_;
    changed_.NotifyAll();  // a stop in progress ends
  }

  // Removes an owner if `is_owner`, which is guarded by the mutex. Returns false if workers that
  // nobody owns have not ended in time.
  bool Stop(bool& is_owner, Timeout timeout) {
    const auto end = Deadline(timeout);
    auto warning_at = Clock::now() + kSecond;
    Lock lock(mutex_);
    if (std::exchange(is_owner, false)) {
      --owners_;
      changed_.NotifyAll();
    }
    if (HasWorkersToStop() && !is_stopping_ && !StartStopper()) {
      lock.Unlock();
      RunStopper();
      lock.Relock();
    }
    while (owners_ == 0 && (spinning_ != 0 || is_stopping_)) {
      const auto now = Clock::now();
      if (now >= end) {
        if (spinning_ != 0) PauseQueued();
        return false;
      }
      if (now < warning_at) {
        changed_.WaitUntil(lock, std::min(end, warning_at));
        continue;
      }
      warning_at = now + kSecond;
      lock.Unlock();
      LogWaiting();
      lock.Relock();
    }
    if (owners_ == 0) Join();
    return true;
  }

  std::size_t Count() {
    const Lock lock(mutex_);
    return workers_;
  }

 private:
  bool HasWorkersToStop() const ZORVIX_REQUIRES(mutex_) { return owners_ == 0 && spinning_ != 0; }

  // Ends the process if a worker cannot be started.
  void Spin(unsigned long workers) noexcept {
    NameThread("zorvix worker");  // the workers inherit the name of the thread that starts them
    bool is_wanted = false;
    {
      Lock lock(mutex_);
      // A StopSpin that is in progress would stop these workers, too.
      while (is_stopping_ && owners_ != 0) changed_.Wait(lock);
      is_wanted = owners_ != 0;
    }
    if (is_wanted) Bridge().Spin(workers);
    const Lock lock(mutex_);
    --spinning_;
    workers_ -= workers;
    changed_.NotifyAll();
  }

  // Returns false if the thread cannot be started: then RunStopper is to be called.
  bool StartStopper() ZORVIX_REQUIRES(mutex_) {
    if (stopper_.joinable()) stopper_.join();  // the last one, which has ended
    is_stopping_ = true;
    try {
      stopper_ = Thread([this] {
        NameThread("zorvix stopper");
        RunStopper();
      });
    } catch (const std::exception&) {
      return false;
    }
    return true;
  }

  void RunStopper() {
    std::chrono::milliseconds pause(1);
    Lock lock(mutex_);
    do {
      while (HasWorkersToStop()) {
        lock.Unlock();
        pause = StopSpin(pause);
        lock.Relock();
        const auto next = Clock::now() + pause;
        while (HasWorkersToStop() && changed_.WaitUntil(lock, next)) {
        }
      }
      // Before anybody learns that the workers have ended. Meanwhile an owner may come and go.
      ResumeQueued();
      lock.Unlock();
      PostQueuedTasks();
      lock.Relock();
    } while (HasWorkersToStop());
    is_stopping_ = false;
    changed_.NotifyAll();
  }

  // The threads have done all but return.
  void Join() ZORVIX_REQUIRES(mutex_) {
    for (auto& thread : threads_) thread.join();
    threads_.clear();
    if (stopper_.joinable()) stopper_.join();
  }

  Mutex mutex_;
  Condition changed_;
  std::size_t owners_ ZORVIX_GUARDED_BY(mutex_) = 0;
  std::size_t workers_ ZORVIX_GUARDED_BY(mutex_) = 0;   // of all Spins
  std::size_t spinning_ ZORVIX_GUARDED_BY(mutex_) = 0;  // threads whose Spin has not returned
  bool is_stopping_ ZORVIX_GUARDED_BY(mutex_) = false;  // until RunStopper ends
  std::vector<Thread> threads_ ZORVIX_GUARDED_BY(mutex_);
  Thread stopper_ ZORVIX_GUARDED_BY(mutex_);
};

}  // namespace

std::size_t CountWorkers() { return Pool::Get().Count(); }

}  // namespace zorvix::detail

namespace zorvix {

Workers::Workers(unsigned long count) {
  // Constructed before a static object of this class, so they are destroyed later.
  detail::MakeDispatcher();
  detail::Pool::Get().Add(count);
}

Workers::~Workers() { Stop(); }

void Workers::Stop() { Stop(Timeout::Forever()); }

bool Workers::Stop(Timeout timeout) { return detail::Pool::Get().Stop(is_owner_, timeout); }

}  // namespace zorvix
