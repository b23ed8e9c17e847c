// Keeps a module's code from being called once its handle is destroyed.
#ifndef ZORVIX_HANDLES_GATE_H_
#define ZORVIX_HANDLES_GATE_H_

#include <zorvix/detail/erasure.h>

#include <cstdint>
#include <utility>

#include "sync.h"

namespace zorvix::detail {

struct Record;

// Counts who is inside, which any number of threads may be at the same time. To enter and to leave
// costs two atomic operations and no lock.
//
// Invariant: the count is the number of passes that exist, also of those that were not admitted and
// are about to end.
class Gate {
 public:
  class Pass;

  // Lets nobody in any more and waits until all other threads have left. Then destroys the
  // callable, if there is one, or leaves that to this thread's outermost pass. No lock is held
  // meanwhile. `record` is that of the handle.
  void Close(const Record& record, Callable* callable);

 private:
  void NotifyLeft();
  void WaitForOthers(const Record& record, std::uint32_t own_passes, const Callable* callable);

  static constexpr std::uint32_t kClosed = 1u << 31;
  Atomic<std::uint32_t> inside_{0};  // kClosed is added by Close
  // Destroys the callable when it ends. Written by Close on the thread of that pass.
  const Pass* last_ = nullptr;
  Callable* callable_ = nullptr;
  Mutex mutex_;  // held to test and to announce that others have left
  Condition left_;
};

// A stay inside, on the stack of its thread, linked to those around it.
class Gate::Pass {
 public:
  explicit Pass(Gate& gate)
      : gate_(gate),
        around_(std::exchange(innermost_, this)),
        admitted_(gate.inside_.fetch_add(1) < kClosed) {}
  ~Pass() {
    innermost_ = around_;
    if (admitted_ && gate_.last_ == this) gate_.callable_->Reset();
    if (gate_.inside_.fetch_sub(1) > kClosed) gate_.NotifyLeft();
  }
  Pass(const Pass&) = delete;
  Pass& operator=(const Pass&) = delete;

  bool admitted() const { return admitted_; }

 private:
  friend class Gate;
  Gate& gate_;
  const Pass* const around_;
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
