#include <zorvix/workers.h>

#include <chrono>
#include <thread>

#include "sync.h"

namespace zorvix {
namespace detail {

// Runs Spin on a thread of its own.
class SpinThread {
 public:
  explicit SpinThread(unsigned long workers) : thread_(&SpinThread::Run, this, workers) {}
  ~SpinThread() {
    // A stop may come before Spin has begun, and gives up while a task takes long.
    std::chrono::milliseconds pause(1);
    while (!HasReturned(pause)) {
      bridge::Zorvix::GetInstance().StopSpin();
      pause *= 2;
    }
    thread_.join();
  }
  SpinThread(const SpinThread&) = delete;
  SpinThread& operator=(const SpinThread&) = delete;

 private:
  // Ends the process if a worker cannot be started.
  void Run(unsigned long workers) noexcept {
    bridge::Zorvix::GetInstance().Spin(workers);
    const Lock lock(mutex_);
    has_returned_ = true;
    returned_.NotifyAll();
  }
  bool HasReturned(std::chrono::milliseconds limit) {
    const auto end = Clock::now() + limit;
    Lock lock(mutex_);
    while (!has_returned_ && returned_.WaitUntil(lock, end)) {
    }
    return has_returned_;
  }

  Mutex mutex_;
  Condition returned_;
  bool has_returned_ ZORVIX_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace detail

Workers::Workers(unsigned long count) {
  // The bridge is constructed before a static object of this class, so it is destroyed later.
  bridge::Zorvix::GetInstance();
  thread_ = std::make_unique<detail::SpinThread>(count);
}

Workers::~Workers() = default;

}  // namespace zorvix
