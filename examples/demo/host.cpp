// Loads the modules as an app would, lets them work through the bridge for a few seconds and shows
// what was sampled and what arrived where. The bridge's log goes to a file beside the program.
#include <dlfcn.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>

#include "demo.h"

namespace {

std::FILE* log_file = stderr;
std::atomic<int> log_lines{0};

struct Module {
  void* library;
  decltype(&ModuleStart) start;
  decltype(&ModuleStop) stop;
};

Module Load(const std::string& path) {
  void* const library = dlopen(path.c_str(), RTLD_LOCAL | RTLD_NOW);
  if (library == nullptr) {
    std::fprintf(stderr, "demo: %s\n", dlerror());
    std::exit(1);
  }
  return {library, reinterpret_cast<decltype(&ModuleStart)>(dlsym(library, "ModuleStart")),
          reinterpret_cast<decltype(&ModuleStop)>(dlsym(library, "ModuleStop"))};
}

// Returns whether `text` is a number from `least` to `most`, and sets `number` to it.
bool Parse(const char* text, double least, double most, double& number) {
  char* end = nullptr;
  number = std::strtod(text, &end);
  return end != text && *end == '\0' && number >= least && number <= most;
}

void PrintRange(const char* what, const demo::Range& range, int samples) {
  std::printf("%-22s %8.2f %8.2f %8.2f\n", what, range.least, samples > 0 ? range.sum / samples : 0,
              range.most);
}

}  // namespace

// Takes the place of the platform's for the bridge and all modules.
extern "C" __attribute__((visibility("default"))) int __android_log_print(int priority,
                                                                          const char* tag,
                                                                          const char* format, ...) {
  char text[2048];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  ++log_lines;
  return std::fprintf(log_file, "%c/%s: %s\n", "??VDIWEF"[priority & 7], tag, text);
}

int main(int argc, char** argv) {
  const std::string program = argv[0];
  const std::string log_path = program + ".log";
  const bool log_here = argc > 1 && std::strcmp(argv[1], "--log") == 0;
  const char* const* const arguments = argv + log_here;
  const int count = argc - log_here;
  double seconds = 3, threshold = 0;
  if (count > 3 || (count > 1 && !Parse(arguments[1], 0.1, 60, seconds)) ||
      (count > 2 && !Parse(arguments[2], 0, 1e6, threshold))) {
    std::fprintf(stderr,
                 "usage: %s [--log] [SECONDS [LOAD]], SECONDS from 0.1 to 60, LOAD from 0\n",
                 argv[0]);
    return 2;
  }
  if (!log_here && (log_file = std::fopen(log_path.c_str(), "w")) == nullptr) {
    std::fprintf(stderr, "demo: %s: %s\n", log_path.c_str(), std::strerror(errno));
    return 1;
  }

  std::promise<std::thread::id> enough;
  const zorvix::Subscriber on_enough(demo::kEnough,
                                     [&](auto&) { enough.set_value(std::this_thread::get_id()); });
  std::vector<Module> modules;
  for (const char* name : {"recorder", "alarm", "sampler"}) {
    modules.push_back(Load(program.substr(0, program.rfind('/') + 1) + "libdemo_" + name + ".so"));
  }
  std::optional<zorvix::Workers> workers(2);
  for (const auto& module : modules) module.start(threshold);

  // The modules work, until the alarm has seen enough or the time is up.
  auto alarm = enough.get_future();
  const auto started = std::chrono::steady_clock::now();
  const bool alarmed =
      alarm.wait_for(std::chrono::duration<double>(seconds)) == std::future_status::ready;
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
  const int sent = zorvix::Client(demo::kFinish).Call({}).value_or(0);

  // One call through the queue, and when the workers have left one at once.
  const auto by_worker = zorvix::Client(demo::kQueuedSummary).Call({}).get();
  workers.reset();
  const auto summary = zorvix::Client(demo::kSummary).Call({}).value_or(demo::Summary{});
  const auto seen = zorvix::Client(demo::kSeen).Call({}).value_or(demo::Seen{});

  // All handles of the modules go, and what is queued, before their code does.
  for (const auto& module : modules) module.stop();
  bridge::Zorvix::GetInstance().SpinOnce();
  for (const auto& module : modules) dlclose(module.library);

  std::printf("%-22s %8s %8s %8s\n", "this machine", "least", "mean", "most");
  PrintRange("load, 1 minute", summary.load, summary.samples);
  PrintRange("CPU busy, percent", summary.busy, summary.samples);
  std::printf("\n%-22s %8s %8s   %s\n", "what", "sent", "arrived", "where");
  std::printf("%-22s %8d %8d   alarm, on %s thread\n", "sample, at once", sent, seen.samples,
              seen.on_samplers_thread ? "the sampler's" : "another");
  std::printf("%-22s %8d %8d   recorder, on %zu of 2 workers\n", "sample, queued", sent,
              summary.samples, summary.threads.size());
  std::printf("%-22s %8d %8d   host, %s\n", "enough, one-shot topic", alarmed, alarmed,
              alarmed ? "on a worker" : "not within the time");
  std::printf("%-22s %8d %8d   recorder, from the queue\n", "summary, Async service", 1,
              by_worker.has_value());
  std::printf("%-22s %8d %8d   recorder, on the host's thread\n", "summary, Sync service", 1,
              summary.samples > 0);
  if (alarmed) {
    std::printf("\nThe load was %.2f or more in 20 samples after %.1f s.\n", threshold,
                took.count());
  }
  if (!log_here) std::printf("%d lines of the log are in %s\n", log_lines.load(), log_path.c_str());
  const bool complete = sent > 0 && seen.samples == sent && summary.samples == sent;
  if (!complete) std::fputs("demo: not all that was sent has arrived\n", stderr);
  return complete ? 0 : 1;
}
