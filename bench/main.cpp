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

// Keeps one repetition of each case and part, the one that the machine disturbed least: of a case
// the one with the fastest peer, of a part the fastest.
class Tables : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      if (run.run_type == Run::RT_Iteration) Keep(run);
    }
  }

  void Finalize() override {
    PrintCases();
    if (!parts_.empty()) PrintParts();
  }

 private:
  void Keep(const Run& run) {
    const bool is_part = run.report_label.empty();
    auto& best = (is_part ? parts_ : cases_).try_emplace(run.family_index, run).first->second;
    const bool is_better = is_part ? run.GetAdjustedRealTime() < best.GetAdjustedRealTime()
                                   : run.counters.at("peer") < best.counters.at("peer");
    if (is_better) best = run;
  }

  void PrintCases() {
    std::puts(
        "| case | peer | Zorvix, ns | peer, ns | to peer | allocations: Zorvix, peer |\n"
        "|---|---|--:|--:|--:|--:|");
    for (auto& [index, run] : cases_) {
      const std::string& name = run.run_name.function_name;
      measured_[name] = run.counters["ours"];
      std::printf("| %s | %s | %.0f | %.0f | %.2f | %.2f, %.2f |\n", name.c_str(),
                  run.report_label.c_str(), run.counters["ours"].value, run.counters["peer"].value,
                  run.counters["to peer"].value, run.counters["allocations"].value,
                  run.counters["allocations of peer"].value);
    }
  }

  void PrintParts() {
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
    PrintTotals("sum", sums);
    PrintTotals("measured", measured_);
  }

  static void PrintTotals(const char* label, std::map<std::string, double>& totals) {
    std::printf("| **%s, ns** | |", label);
    for (const char* name : kAddedUp) std::printf(" **%.0f** |", totals[name]);
    std::puts("");
  }

  // Both in the order in which the benchmarks were registered.
  std::map<std::int64_t, Run> cases_;
  std::map<std::int64_t, Run> parts_;
  std::map<std::string, double> measured_;  // nanoseconds of each case
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
// Replaces the system's function for the whole process.
int __android_log_print(int, const char*, const char*, ...) { return 0; }
#endif

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // In a process with a single thread, locks and reference counts would cost almost nothing.
  std::thread([] { pause(); }).detach();
  AddCases();
  Tables tables;
  benchmark::RunSpecifiedBenchmarks(&tables);
}
