#include "gate.h"

#include <algorithm>
#include <chrono>

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
  // The first thread writes that it leaves, and then reads whether the gate is closed, which the
  // processor may do in the other order. Then there is no notification.
  constexpr std::chrono::milliseconds kLongestWait(1);
  const auto have_left = [&](Clock::time_point until) {
    Lock lock(mutex_);
    while (HasOthers(own_passes)) {
      const auto now = Clock::now();
      if (now >= until) return false;
      left_.WaitUntil(lock, std::min(until, now + kLongestWait));
    }
    return true;
  };
  const auto log = [&](int seconds, auto) {
    const int thread = callable == nullptr ? 0 : record.inside.Thread(ThisThread());
    LogWaitingDestructor(record, thread, seconds);
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
  is_closed_ = true;
  if (HasOthers(own_passes)) WaitForOthers(record, own_passes, callable);
  if (callable == nullptr) return;
  if (own_passes == 0) {
    callable->Reset();
  } else {
    callable_ = callable;
    last_ = outermost;  // still on this thread's stack
  }
}

}  // namespace zorvix::detail
