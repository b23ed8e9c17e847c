// Messages that reach nobody: counted for each export and import, and logged.
#ifndef ZORVIX_MQTT_REJECTIONS_H_
#define ZORVIX_MQTT_REJECTIONS_H_

#include <zorvix/zorvix.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace zorvix::mqtt {

using Clock = std::chrono::steady_clock;

// What one export or import has rejected.
struct Rejected {
  Rejected(const char* its_kind, std::string its_name)
      : kind(its_kind), name(std::move(its_name)) {}
  const char* const kind;
  const std::string name;
  std::atomic<std::size_t> count{0};
  // Guarded by the mutex of Rejections:
  bool is_listed = false;
  const char* reason = "";  // of the last; a literal
  Clock::time_point next_line;
};

class Rejections {
 public:
  // Any thread may call it.
  void Add(const std::shared_ptr<Rejected>& rejected, const char* reason);
  // Logs what has been added, at most one line a second for each export or import.
  void Log();

 private:
  std::mutex mutex_;
  std::vector<std::shared_ptr<Rejected>> unlogged_ ZORVIX_GUARDED_BY(mutex_);
};

}  // namespace zorvix::mqtt

#endif  // ZORVIX_MQTT_REJECTIONS_H_
