// Runs the cases and prints the tables of docs/performance.md.
#include <unistd.h>
#include <zorvix/zorvix.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <string>
#include <thread>

#include "measure.h"

namespace {

// Keeps of each case the repetition in which its peer was fastest, and of each part the fastest:
// those that the machine disturbed least.
class Tables : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      const bool is_part = run.report_label.empty();
      auto& best = (is_part ? parts_ : cases_).try_emplace(run.family_index, run).first->second;
      if (is_part ? run.GetAdjustedRealTime() < best.GetAdjustedRealTime()
                  : run.counters.at("peer") < best.counters.at("peer")) {
        best = run;
      }
    }
  }

  void Finalize() override {
    std::map<std::string, double> measured;
    std::puts(
        "| case | peer | Zorvix, ns | peer, ns | to peer | allocations: Zorvix, peer |\n"
        "|---|---|--:|--:|--:|--:|");
    for (auto& [index, run] : cases_) {
      const std::string& name = run.run_name.function_name;
      measured[name] = run.counters["ours"];
      std::printf("| %s | %s | %.0f | %.0f | %.2f | %.2f, %.2f |\n", name.c_str(),
                  run.report_label.c_str(), run.counters["ours"].value, run.counters["peer"].value,
                  run.counters["to peer"].value, run.counters["allocations"].value,
                  run.counters["allocations of peer"].value);
    }
    if (parts_.empty()) return;
    std::printf("\n| part | ns |");
    for (const char* name : kAddedUp) std::printf(" %s |", name);
    std::puts("\n|---|--:|--:|--:|--:|");
    std::map<std::string, double> sums;
    for (auto& [index, run] : parts_) {
      const double time = run.GetAdjustedRealTime();
      std::printf("| %s | %.1f |", run.run_name.function_name.c_str(), time);
      for (const char* name : kAddedUp) {
        std::printf(" %.0f |", run.counters[name].value);
        sums[name] += run.counters[name] * time;
      }
      std::puts("");
    }
    std::printf("| **sum, ns** | |");
    for (const char* name : kAddedUp) std::printf(" **%.0f** |", sums[name]);
    std::printf("\n| **measured, ns** | |");
    for (const char* name : kAddedUp) std::printf(" **%.0f** |", measured[name]);
    std::puts("");
  }

 private:
  std::map<std::int64_t, Run> cases_, parts_;  // in the order in which they were added
};

}  // namespace

void* operator new(std::size_t size) {
  ++allocations;
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

#if !ZORVIX_BENCH_KEEPS_LOG
// Takes the place of the platform's for the whole process.
int __android_log_print(int, const char*, const char*, ...) { return 0; }
#endif

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // A process with one thread only would get locks and reference counts almost for nothing.
  std::thread([] { pause(); }).detach();
  Tables tables;
  benchmark::RunSpecifiedBenchmarks(&tables);
}
