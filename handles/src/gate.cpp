#include "gate.h"

#include <chrono>

namespace zorvix::detail {

thread_local const Gate::Pass* Gate::Pass::innermost_ = nullptr;

void Gate::NotifyLeft() {
  {
    // Close may be between its look at the count and its wait.
    const Lock lock(mutex_);
  }
  left_.NotifyAll();
}

void Gate::WaitForOthers(const std::string& name, std::uint32_t own_passes) {
  const std::uint32_t without_others = kClosed + own_passes;
  const auto warning_at = Clock::now() + std::chrono::seconds(1);
  {
    Lock lock(mutex_);
    bool is_late = false;
    while (inside_ != without_others && !is_late) is_late = !left_.WaitUntil(lock, warning_at);
    if (inside_ == without_others) return;
  }
  BRIDGE_LOG(bridge::kLogWarn, "a destructor waits for its callable to return, name: %s",
             name.c_str());
  Lock lock(mutex_);
  while (inside_ != without_others) left_.Wait(lock);
}

void Gate::Close(const std::string& name, Callable* callable) {
  const Pass* outermost = nullptr;
  std::uint32_t own_passes = 0;
  for (auto* own = Pass::innermost_; own != nullptr; own = own->around_) {
    if (&own->gate_ != this) continue;
    outermost = own;
    ++own_passes;
  }
  inside_ += kClosed;
  if (inside_ != kClosed + own_passes) WaitForOthers(name, own_passes);
  if (callable == nullptr) return;
  if (own_passes == 0) {
    callable->Reset();
  } else {
    callable_ = callable;
    last_ = outermost;  // still on this thread's stack
  }
}

}  // namespace zorvix::detail
