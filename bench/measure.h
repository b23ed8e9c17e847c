// Measures a case and its peer. A shared machine has slow phases that last for seconds, so the two
// take turns every few milliseconds, and the result is the median of the ratios of neighbours.
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

// The cases whose parts are measured too, and how often each case executes a part.
constexpr std::array kAddedUp{"Sync publish to 1", "Sync call", "Async publish and drain"};
using Counts = std::array<int, kAddedUp.size()>;

struct Sample {  // of one operation
  double nanoseconds;
  double allocations;  // on the measuring thread
};

using Clock = std::chrono::steady_clock;
using Measure = std::function<Sample()>;

void AddCases();        // registers all cases
void AddHandleCases();  // those of handles.cpp

inline thread_local std::size_t allocations = 0;  // so far

// Returns the time at which it started.
template <typename Step>
Clock::time_point Repeat(std::size_t times, const Step& step) {
  const auto start = Clock::now();
  for (std::size_t i = 0; i < times; ++i) step();
  return start;
}

// Measures run(n), which executes n operations, a multiple of 64, and returns the time at which it
// started. The first call finds the n that takes a millisecond.
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

// Each step executes `operations` operations.
template <typename Step>
Measure OneThread(Step step, std::size_t operations = 1) {
  return Timed([=](std::size_t n) { return Repeat(n / operations, step); });
}

// Each thread executes n operations. Two threads without contention take as long as one.
template <typename First, typename Second>
Measure TwoThreads(First first, Second second) {
  return Timed([=](std::size_t n) {
    std::atomic<int> ready{0};
    const auto run = [&](const auto& step) {
      ++ready;
      while (ready != 2) {
      }
      return Repeat(n, step);
    };
    cpu_set_t others;  // without this, both threads often share a processor
    sched_getaffinity(0, sizeof others, &others);
    CPU_CLR(static_cast<std::size_t>(sched_getcpu()), &others);
    auto other = std::async(std::launch::async, [&] {
      sched_setaffinity(0, sizeof others, &others);
      return run(second);
    });
    const auto start = run(first);
    return std::min(start, other.get());  // either thread may have been first
  });
}

inline double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// Measures `ours` and `peer` once in each iteration and stores the medians in the counters.
inline void Compare(benchmark::State& state, const char* peer_name, const Measure& ours,
                    const Measure& peer) {
  Sample our_sample = ours();  // the first calls find the number of operations and warm up
  Sample peer_sample = peer();
  std::vector<double> our_times;
  std::vector<double> peer_times;
  std::vector<double> ratios;
  for (auto _ : state) {
    const bool peer_first = ratios.size() % 2 != 0;  // neither is always the second
    if (peer_first) peer_sample = peer();
    our_sample = ours();
    if (!peer_first) peer_sample = peer();
    our_times.push_back(our_sample.nanoseconds);
    peer_times.push_back(peer_sample.nanoseconds);
    ratios.push_back(our_sample.nanoseconds / peer_sample.nanoseconds);
  }
  state.SetLabel(peer_name);
  state.counters = {{"ours", Median(our_times)},
                    {"peer", Median(peer_times)},
                    {"to peer", Median(ratios)},
                    {"allocations", our_sample.allocations},
                    {"allocations of peer", peer_sample.allocations}};
}

#endif  // ZORVIX_BENCH_MEASURE_H_
