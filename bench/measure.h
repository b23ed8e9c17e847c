// Measures a case beside its peer. A shared machine has slow phases that last for seconds, so the
// two take turns every few milliseconds, and what counts is the median of the ratios of neighbours.
#ifndef ZORVIX_BENCH_MEASURE_H_
#define ZORVIX_BENCH_MEASURE_H_

#include <benchmark/benchmark.h>
#include <sched.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <vector>

// The cases whose parts are measured too, and how often each does a part.
constexpr std::array kAddedUp{"Sync publish to 1", "Sync call", "Async publish and drain"};
using Counts = std::array<int, kAddedUp.size()>;

struct Sample {  // of one operation
  double nanoseconds;
  double allocations;  // on the measuring thread
};

using Clock = std::chrono::steady_clock;
using Measure = std::function<Sample()>;

inline thread_local std::size_t allocations = 0;  // so far

// Returns its start.
template <typename Step>
Clock::time_point Repeat(std::size_t times, const Step& step) {
  const auto start = Clock::now();
  for (std::size_t i = 0; i < times; ++i) step();
  return start;
}

// Measures run(n), which does n operations, a multiple of 64, and returns its start. The first call
// finds the n that takes a millisecond.
template <typename Run>
Measure Timed(Run run) {
  return [run, n = std::size_t{64}]() mutable {
    for (;; n *= 2) {
      const std::size_t before = allocations;
      const auto start = run(n);
      const double elapsed = std::chrono::duration<double, std::nano>(Clock::now() - start).count();
      if (elapsed < 1e6) continue;
      const auto count = static_cast<double>(n);
      return Sample{elapsed / count, static_cast<double>(allocations - before) / count};
    }
  };
}

// Each step does `at_once` operations.
template <typename Step>
Measure OneThread(Step step, std::size_t at_once = 1) {
  return Timed([=](std::size_t n) { return Repeat(n / at_once, step); });
}

// Each thread does all operations: two that do not hinder one another take as long as one.
template <typename First, typename Second>
Measure TwoThreads(First first, Second second) {
  return Timed([=](std::size_t n) {
    std::atomic<int> ready{0};
    const auto run = [&](const auto& step) {
      for (++ready; ready != 2;) continue;
      return Repeat(n, step);
    };
    cpu_set_t others;  // left to themselves both often share a processor
    sched_getaffinity(0, sizeof others, &others);
    CPU_CLR(static_cast<std::size_t>(sched_getcpu()), &others);
    auto other = std::async(std::launch::async, [&] {
      sched_setaffinity(0, sizeof others, &others);
      return run(second);
    });
    const auto start = run(first);
    return std::min(start, other.get());  // either may be late to see the other ready
  });
}

inline double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// Gives the result of `state`, one round of `ours` and `peer` for each of its iterations.
inline void Compare(benchmark::State& state, const char* peer_name, const Measure& ours,
                    const Measure& peer) {
  Sample own = ours(), other = peer();  // find their lengths and warm up
  std::vector<double> times, peer_times, ratios;
  for (auto _ : state) {
    const bool peer_first = times.size() % 2 != 0;  // neither is always the second
    if (peer_first) other = peer();
    own = ours();
    if (!peer_first) other = peer();
    times.push_back(own.nanoseconds);
    peer_times.push_back(other.nanoseconds);
    ratios.push_back(own.nanoseconds / other.nanoseconds);
  }
  state.SetLabel(peer_name);
  state.counters = {{"ours", Median(times)},
                    {"peer", Median(peer_times)},
                    {"to peer", Median(ratios)},
                    {"allocations", own.allocations},
                    {"allocations of peer", other.allocations}};
}

#endif  // ZORVIX_BENCH_MEASURE_H_
