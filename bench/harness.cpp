#include "harness.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>
#include <zorvix/zorvix.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace {

thread_local std::size_t allocations = 0;

using Log = int (*)(int, const char*, const char*, ...);

std::atomic<Log> platform_log{nullptr};

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// Keeps of each case the repetition in which its peer was fastest, which the machine disturbed
// least, and prints them when all have run.
class Table : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& context) override {
    PrintBasicContext(&GetErrorStream(), context);
    return true;
  }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      const auto [best, inserted] = best_.try_emplace(run.family_index, run);
      if (!inserted && run.counters.at("peer") < best->second.counters.at("peer")) {
        best->second = run;
      }
    }
  }

  void Finalize() override {
    std::puts(
        "| case | peer | Zorvix, ns | peer, ns | to peer | floor, ns | to floor "
        "| allocations: Zorvix, peer, floor |\n"
        "|---|---|--:|--:|--:|--:|--:|--:|");
    for (const auto& [index, run] : best_) {
      const auto value = [&run = run](const char* name) { return run.counters.at(name).value; };
      std::printf("| %s | %s | %.0f | %.0f | %.2f | %.0f | %.2f |",
                  run.run_name.function_name.c_str(), run.report_label.c_str(), value("ours"),
                  value("peer"), value("to peer"), value("floor"), value("to floor"));
      if (!std::isnan(value("allocations"))) {
        std::printf(" %.2f, %.2f, %.2f", value("allocations"), value("allocations of peer"),
                    value("allocations of floor"));
      }
      std::puts(" |");
    }
  }

 private:
  std::map<std::int64_t, Run> best_;  // in the order in which the cases were added
};

}  // namespace

std::size_t Allocations() { return allocations; }

void* operator new(std::size_t size) {
  ++allocations;
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}

void operator delete(void* memory) noexcept { std::free(memory); }

void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

// Takes the place of the platform's for the whole process. The bridge passes a path, a line and a
// message.
int __android_log_print(int priority, const char* tag, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const char* const path = va_arg(arguments, const char*);
  const int line = va_arg(arguments, int);
  const char* const message = va_arg(arguments, const char*);
  va_end(arguments);
  benchmark::DoNotOptimize(message);
  benchmark::ClobberMemory();
  const Log log = platform_log.load(std::memory_order_relaxed);
  return log == nullptr ? 0 : log(priority, tag, format, path, line, message);
}

PlatformLog::PlatformLog() : stderr_(dup(STDERR_FILENO)) {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null, STDERR_FILENO);
  close(null);
  platform_log = reinterpret_cast<Log>(dlsym(RTLD_NEXT, "__android_log_print"));
}

PlatformLog::~PlatformLog() {
  platform_log = nullptr;
  dup2(stderr_, STDERR_FILENO);
  close(stderr_);
}

double Together(const std::function<void()>& first, const std::function<void()>& second) {
  cpu_set_t all;
  sched_getaffinity(0, sizeof all, &all);
  const auto here = static_cast<std::size_t>(sched_getcpu());
  cpu_set_t own;
  CPU_ZERO(&own);
  CPU_SET(here, &own);
  cpu_set_t others = all;
  CPU_CLR(here, &others);

  std::atomic<int> ready{0};
  // Runs one side on the given processors; left to themselves both often share one, and are done
  // before that is mended. Returns its start, since either may be late to see the other ready.
  const auto run = [&ready](const cpu_set_t& processors, const std::function<void()>& side) {
    sched_setaffinity(0, sizeof processors, &processors);
    ++ready;
    while (ready != 2) {
    }
    const auto start = Clock::now();
    side();
    return start;
  };
  Clock::time_point other_start;
  std::thread thread([&] { other_start = run(others, second); });
  const auto start = run(own, first);
  thread.join();
  const double elapsed = NanosecondsSince(std::min(start, other_start));
  sched_setaffinity(0, sizeof all, &all);
  return elapsed;
}

void Compare(benchmark::State& state, const char* peer_name, const Measure& ours,
             const Measure& peer, const Measure& floor) {
  const std::array<const Measure*, 3> measures{&ours, &peer, &floor};
  for (const auto* measure : measures) (*measure)();  // finds its length and warms up
  std::array<std::vector<double>, 3> times;
  std::array<std::vector<double>, 3> ratios;  // of ours to each
  std::array<Sample, 3> samples{};
  std::size_t first = 0;
  for (auto _ : state) {
    for (std::size_t i = 0; i < 3; ++i) {
      const std::size_t turn = (first + i) % 3;
      samples[turn] = (*measures[turn])();
    }
    ++first;  // nobody always runs after the same neighbour
    for (std::size_t i = 0; i < 3; ++i) {
      times[i].push_back(samples[i].nanoseconds);
      ratios[i].push_back(samples[0].nanoseconds / samples[i].nanoseconds);
    }
  }
  state.SetLabel(peer_name);
  state.counters["ours"] = Median(times[0]);
  state.counters["peer"] = Median(times[1]);
  state.counters["floor"] = Median(times[2]);
  state.counters["to peer"] = Median(ratios[1]);
  state.counters["to floor"] = Median(ratios[2]);
  state.counters["allocations"] = samples[0].allocations;
  state.counters["allocations of peer"] = samples[1].allocations;
  state.counters["allocations of floor"] = samples[2].allocations;
}

int main(int argc, char** argv) {
  // Spreads the repetitions of each case over the whole run.
  std::string interleave = "--benchmark_enable_random_interleaving";
  std::vector<char*> arguments(argv, argv + argc);
  arguments.insert(arguments.begin() + 1, interleave.data());
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;
  // While a process has one thread only, locks and reference counts cost it next to nothing; no
  // user of the bridge is such a process.
  std::promise<void> end;
  std::thread idle([&end] { end.get_future().wait(); });
  Table table;
  benchmark::RunSpecifiedBenchmarks(&table);
  end.set_value();
  idle.join();
}
