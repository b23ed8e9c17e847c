#include "rejections.h"

#include <algorithm>

namespace zorvix::mqtt {

void Rejections::Add(const std::shared_ptr<Rejected>& rejected, const char* reason) {
  const std::lock_guard lock(mutex_);
  ++rejected->count;
  rejected->reason = reason;
  if (rejected->is_listed) return;
  unlogged_.push_back(rejected);
  rejected->is_listed = true;
}

void Rejections::Log() {
  struct Line {
    std::shared_ptr<Rejected> rejected;
    std::size_t count;
    const char* reason;
  };
  std::vector<Line> lines;
  {
    const std::lock_guard lock(mutex_);
    const auto now = Clock::now();
    const auto later = std::partition(unlogged_.begin(), unlogged_.end(),
                                      [&](const auto& one) { return one->next_line > now; });
    for (auto due = later; due != unlogged_.end(); ++due) {
      lines.push_back({*due, (*due)->count, (*due)->reason});
      (*due)->is_listed = false;
      (*due)->next_line = now + std::chrono::seconds(1);
    }
    unlogged_.erase(later, unlogged_.end());
  }
  for (const auto& [rejected, count, reason] : lines) {
    BRIDGE_LOG(bridge::kLogWarn, "MQTT %s rejects messages, name: %s, so far: %zu, last reason: %s",
               rejected->kind, rejected->name.c_str(), count, reason);
  }
}

}  // namespace zorvix::mqtt
