// Keeps a module's code from being called once its handle is destroyed.
#ifndef ZORVIX_HANDLES_GATE_H_
#define ZORVIX_HANDLES_GATE_H_

#include <zorvix/detail/erasure.h>

#include <atomic>
#include <cstdint>
#include <utility>

#include "sync.h"
#include "threads.h"

namespace zorvix::detail {

struct Record;

// Counts who is inside, which any number of threads may be at the same time. To enter costs an
// atomic read-modify-write, and to leave another one, except for the thread that was the first to
// enter: often, only one thread publishes.
//
// Invariant: the sum of both counts is the number of passes that exist, also of those that were not
// admitted and are about to end.
class Gate {
 public:
  class Pass;

  // Lets nobody in any more and waits until all other threads have left. Then destroys the
  // callable, if there is one, or leaves that to this thread's outermost pass. No lock is held
  // meanwhile. `record` is that of the handle.
  void Close(const Record& record, Callable* callable);

 private:
  // Returns whether this is the first thread.
  bool Enter() {
    if (!first_.IsThisThread()) {
      by_others_.fetch_add(1);
      return false;
    }
    // An exchange, and not a store, since whether the gate is closed must be read after it.
    by_first_.exchange(by_first_.load(std::memory_order_relaxed) + 1);
    return true;
  }
  void Leave(bool is_first) {
    if (is_first) {
      by_first_.store(by_first_.load(std::memory_order_relaxed) - 1, std::memory_order_release);
    } else {
      by_others_.fetch_sub(1);
    }
    if (is_closed_) NotifyLeft();
  }
  void NotifyLeft();
  bool HasOthers(std::uint32_t own_passes) const { return by_first_ + by_others_ != own_passes; }
  void WaitForOthers(const Record& record, std::uint32_t own_passes, const Callable* callable);

  FirstThread first_;
  Atomic<std::uint32_t> by_first_{0};  // written by that thread only
  Atomic<std::uint32_t> by_others_{0};
  Atomic<bool> is_closed_{false};
  // Destroys the callable when it ends. Written by Close on the thread of that pass.
  const Pass* last_ = nullptr;
  Callable* callable_ = nullptr;
  Mutex mutex_;  // held to test and to announce that others have left
  Condition left_;
};

// A stay inside, on the stack of its thread, linked to those around it. The gate must exist longer.
class Gate::Pass {
 public:
  explicit Pass(Gate& gate)
      : gate_(gate),
        around_(std::exchange(innermost_, this)),
        is_first_(gate.Enter()),
        admitted_(!gate.is_closed_) {}
  ~Pass() {
    innermost_ = around_;
    if (admitted_ && gate_.last_ == this) gate_.callable_->Reset();
    gate_.Leave(is_first_);
  }
  Pass(const Pass&) = delete;
  Pass& operator=(const Pass&) = delete;

  bool admitted() const { return admitted_; }

 private:
  friend class Gate;
  Gate& gate_;
  const Pass* const around_;
  const bool is_first_;  // whether it is one of the first thread
  const bool admitted_;
  // The library is never unloaded, so this may be in the thread's static block, where it is found
  // without a call. Android's loader has no room there.
#ifdef __GLIBC__
  __attribute__((tls_model("initial-exec")))
#endif
  static thread_local const Pass* innermost_;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_GATE_H_
