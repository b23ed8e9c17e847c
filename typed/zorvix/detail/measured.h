// Trace sections, and the time that callables take. Not for users: see inspect.h.
#ifndef ZORVIX_DETAIL_MEASURED_H_
#define ZORVIX_DETAIL_MEASURED_H_

#include <zorvix/detail/registry.h>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

// A section of the platform's trace, such as "Subscriber readings". It ends on the thread on which
// it began, also when tracing has been switched off meanwhile.
class Section {
 public:
  Section(const Process& process, const char* kind, const std::string& name)
      : process_(process), begun_(process.IsTracing()) {
    if (begun_) process_.begin_section((std::string(kind) + ' ' + name).c_str());
  }
  ~Section() {
    if (begun_) process_.end_section();
  }
  Section(const Section&) = delete;
  Section& operator=(const Section&) = delete;

 private:
  const Process& process_;
  const bool begun_;
};

// Surrounds an invocation of a handle's callable. Reads no clock unless a SlowLog lives.
class Measured {
 public:
  explicit Measured(Record& record)
      : section_(record.process, record.kind, record.name),
        record_(record),
        limit_(record.process.smallest_slow_limit.load(std::memory_order_relaxed)) {
    if (limit_ != 0) start_ = Clock::now();
  }
  ~Measured() {
    if (limit_ != 0) Finish();
  }
  Measured(const Measured&) = delete;
  Measured& operator=(const Measured&) = delete;

 private:
  void Finish() {
    const std::chrono::nanoseconds elapsed = Clock::now() - start_;
    ++record_.invocations;
    std::int64_t longest = record_.longest;
    while (longest < elapsed.count() &&
           !record_.longest.compare_exchange_weak(longest, elapsed.count())) {
    }
    if (elapsed.count() <= limit_) return;
    ZORVIX_LOG("detail/measured.h", bridge::kLogWarn,
               "a callable took %lld ms, kind: %s, name: %s, module: %s",
               static_cast<long long>(elapsed.count() / 1'000'000), record_.kind,
               record_.name.c_str(), record_.module);
  }

  const Section section_;
  Record& record_;
  const std::int64_t limit_;
  Clock::time_point start_;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_MEASURED_H_
