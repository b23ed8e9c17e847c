// Messages of an export or import that reach nobody.
#ifndef ZORVIX_MQTT_REJECTED_H_
#define ZORVIX_MQTT_REJECTED_H_

#include <zorvix/zorvix.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <utility>

namespace zorvix::mqtt {

using Clock = std::chrono::steady_clock;

class Rejected {
 public:
  Rejected(const char* kind, std::string name) : kind_(kind), name_(std::move(name)) {}
  std::size_t count() const { return count_; }
  // Counts messages, and logs at most one line a second. Any thread may call it.
  void Add(const char* reason, std::size_t added = 1) {
    const std::size_t count = count_ += added;
    const auto now = Clock::now();
    auto next_line = next_line_.load();
    if (now < next_line) return;
    const auto later = now + std::chrono::seconds(1);
    if (!next_line_.compare_exchange_strong(next_line, later)) return;
    BRIDGE_LOG(bridge::kLogWarn, "MQTT %s rejects messages, name: %s, so far: %zu, last reason: %s",
               kind_, name_.c_str(), count, reason);
  }

 private:
  const char* const kind_;
  const std::string name_;
  std::atomic<std::size_t> count_{0};
  std::atomic<Clock::time_point> next_line_{Clock::time_point::min()};
};

}  // namespace zorvix::mqtt

#endif  // ZORVIX_MQTT_REJECTED_H_
