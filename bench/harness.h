// Measures a case beside its peer and beside the floor.
//
// A shared machine has slow phases that last for seconds, so the three take turns every few
// milliseconds, and what counts is the median of the ratios of neighbours. Google Benchmark
// supplies the rest: the list of cases, the choice among them by --benchmark_filter, the figures of
// the machine and the barrier against the optimizer.
#ifndef ZORVIX_BENCH_HARNESS_H_
#define ZORVIX_BENCH_HARNESS_H_

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <utility>

using Clock = std::chrono::steady_clock;

inline double NanosecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// Of one operation.
struct Sample {
  double nanoseconds;
  double allocations;  // on the measuring thread
};

using Measure = std::function<Sample()>;

// How often the calling thread has allocated memory.
std::size_t Allocations();

// Gives the result of `state`, one round of `ours`, `peer` and `floor` for each of its iterations.
void Compare(benchmark::State& state, const char* peer_name, const Measure& ours,
             const Measure& peer, const Measure& floor);

// Lines of the bridge are dropped, or while an object of this class lives, given to the platform's
// log with stderr on /dev/null.
class PlatformLog {
 public:
  PlatformLog();
  PlatformLog(const PlatformLog&) = delete;
  PlatformLog& operator=(const PlatformLog&) = delete;
  ~PlatformLog();

 private:
  int stderr_;
};

// Measures run(n), which does n operations, a multiple of 64, and returns their nanoseconds. The
// first call finds the n that takes long enough to be timed.
template <typename Run>
Measure Timed(Run run) {
  constexpr double kShortestRun = 1e6;
  return [run = std::move(run), n = std::size_t{64}]() mutable {
    for (;; n *= 2) {
      const std::size_t allocations = Allocations();
      const double elapsed = run(n);
      if (elapsed < kShortestRun) continue;
      const auto count = static_cast<double>(n);
      return Sample{elapsed / count, static_cast<double>(Allocations() - allocations) / count};
    }
  };
}

template <typename Operation>
Measure OneThread(Operation operation) {
  return Timed([operation = std::move(operation)](std::size_t n) {
    const auto start = Clock::now();
    for (std::size_t i = 0; i < n; ++i) operation();
    return NanosecondsSince(start);
  });
}

// Runs `first` on this thread and `second` on one on another processor, from the same moment, and
// returns the nanoseconds until both are done.
double Together(const std::function<void()>& first, const std::function<void()>& second);

// Each thread does all n operations, so that two threads that do not hinder one another take as
// long as one.
template <typename First, typename Second>
Measure TwoThreads(First first, Second second) {
  return Timed([first = std::move(first), second = std::move(second)](std::size_t n) {
    const auto repeat = [n](const auto& operation) {
      for (std::size_t i = 0; i < n; ++i) operation();
    };
    return Together([&] { repeat(first); }, [&] { repeat(second); });
  });
}

#endif  // ZORVIX_BENCH_HARNESS_H_
