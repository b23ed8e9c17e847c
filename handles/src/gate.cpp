#include "gate.h"

#include "waits.h"

namespace zorvix::detail {

thread_local const Gate::Pass* Gate::Pass::innermost_ = nullptr;

void Gate::NotifyLeft() {
  {
    // Close may be between its look at the count and its wait.
    const Lock lock(mutex_);
  }
  left_.NotifyAll();
}

void Gate::WaitForOthers(const Record& record, std::uint32_t own_passes, const Callable* callable) {
  const auto have_left = [&](Clock::time_point until) {
    Lock lock(mutex_);
    bool is_over = false;
    while (inside_ != kClosed + own_passes && !is_over) is_over = !left_.WaitUntil(lock, until);
    return inside_ == kClosed + own_passes;
  };
  const auto log = [&](int seconds, auto) {
    // The record follows one invocation, perhaps that of this thread.
    const int thread = callable != nullptr ? record.inside.thread() : 0;
    LogWaitingDestructor(record, thread == ThisThread() ? 0 : thread, seconds);
  };
  WaitAndLog(kNever, have_left, log);
}

void Gate::Close(const Record& record, Callable* callable) {
  const Pass* outermost = nullptr;
  std::uint32_t own_passes = 0;
  for (auto* own = Pass::innermost_; own != nullptr; own = own->around_) {
    if (&own->gate_ != this) continue;
    outermost = own;
    ++own_passes;
  }
  inside_ += kClosed;
  if (inside_ != kClosed + own_passes) WaitForOthers(record, own_passes, callable);
  if (callable == nullptr) return;
  if (own_passes == 0) {
    callable->Reset();
  } else {
    callable_ = callable;
    last_ = outermost;  // still on this thread's stack
  }
}

}  // namespace zorvix::detail
