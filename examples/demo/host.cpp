// Loads the modules as an app would, lets them work through the bridge for a few seconds and shows
// what was sampled and what arrived where.
#include <dlfcn.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <vector>

#include "demo.h"

using bridge::BridgeType;
using bridge::Zorvix;

namespace {

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

// Returns a request that stores the server's answer and then `done`s.
template <typename Answer>
bridge::RequestCallback Store(
    Answer& answer, const std::function<void()>& done = [] {}) {
  return [&answer, done](const demo::Server& serve) {
    std::any response;
    serve(std::any(), response);
    answer = std::any_cast<Answer>(response);
    done();
  };
}

// Returns the answer of a Sync service.
template <typename Answer>
Answer Ask(const std::string& name) {
  auto client = demo::Service(name, BridgeType::Sync);
  Answer answer{};
  Zorvix::GetInstance().RegisterClient(client);
  Zorvix::GetInstance().Call(client, Store(answer));
  Zorvix::GetInstance().UnregisterClient(client);
  return answer;
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

int main(int argc, char** argv) {
  double seconds = 3, threshold = 0;
  if (argc > 3 || (argc > 1 && !Parse(argv[1], 0.1, 60, seconds)) ||
      (argc > 2 && !Parse(argv[2], 0, 1e6, threshold))) {
    std::fprintf(stderr, "usage: %s [SECONDS [LOAD]], SECONDS from 0.1 to 60, LOAD from 0\n",
                 argv[0]);
    return 2;
  }
  auto& bridge = Zorvix::GetInstance();

  std::promise<std::thread::id> enough;
  auto enough_topic = demo::Topic("enough", BridgeType::SignleAsync);
  const auto on_enough = std::make_shared<demo::Subscriber>(
      [&](const std::any&) { enough.set_value(std::this_thread::get_id()); });
  bridge.RegisterSubscriber(enough_topic, on_enough);

  const std::string path = argv[0];
  const std::string folder = path.substr(0, path.rfind('/') + 1);
  std::vector<Module> modules;
  for (const char* name : {"recorder", "alarm", "sampler"}) {
    modules.push_back(Load(folder + "libdemo_" + name + ".so"));
  }
  std::thread spin([&] { bridge.Spin(2); });
  for (const auto& module : modules) module.start(threshold);

  // The modules work, until the alarm has seen enough or the time is up.
  auto alarm = enough.get_future();
  const auto started = std::chrono::steady_clock::now();
  const bool alarmed =
      alarm.wait_for(std::chrono::duration<double>(seconds)) == std::future_status::ready;
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
  const int sent = Ask<int>("finish");

  // One call through the queue, answered by a worker, and one at once.
  demo::Summary by_worker;
  std::promise<std::thread::id> answered;
  auto client = demo::Service("summary", BridgeType::Async);
  bridge.RegisterClient(client);
  bridge.Call(client, Store(by_worker, [&] { answered.set_value(std::this_thread::get_id()); }));
  const bool by_other_thread = answered.get_future().get() != std::this_thread::get_id();
  bridge.UnregisterClient(client);
  bridge.StopSpin();
  spin.join();
  const auto summary = Ask<demo::Summary>("summary");
  const auto seen = Ask<demo::Seen>("seen");

  // All endpoints leave and the queue is drained before any code is unloaded.
  bridge.UnregisterSubscriber(enough_topic, demo::Handle(on_enough));
  for (const auto& module : modules) module.stop();
  bridge.SpinOnce();
  for (const auto& module : modules) dlclose(module.library);

  std::printf("%-22s %8s %8s %8s\n", "this machine", "least", "mean", "most");
  PrintRange("load, 1 minute", summary.load, summary.samples);
  PrintRange("CPU busy, percent", summary.busy, summary.samples);
  std::printf("\n%-22s %8s %8s   %s\n", "what", "sent", "arrived", "where");
  std::printf("%-22s %8d %8d   alarm, on %s thread\n", "sample, Sync topic", sent, seen.samples,
              seen.on_samplers_thread ? "the sampler's" : "another");
  std::printf("%-22s %8d %8d   recorder, on %zu of 2 workers\n", "sample, Async topic", sent,
              summary.samples, summary.threads.size());
  std::printf("%-22s %8d %8d   host, %s\n", "enough, one-shot topic", alarmed, alarmed,
              alarmed ? "on a worker" : "not within the time");
  std::printf("%-22s %8d %8d   recorder, on %s\n", "summary, Async service", 1,
              by_worker.samples > 0, by_other_thread ? "a worker" : "the host's thread");
  std::printf("%-22s %8d %8d   recorder, on the host's thread\n", "summary, Sync service", 1,
              summary.samples > 0);
  if (alarmed) {
    std::printf("\nThe load was %.2f or more in 20 samples after %.1f s.\n", threshold,
                took.count());
  }
  const bool complete = sent > 0 && seen.samples == sent && summary.samples == sent;
  if (!complete) std::fputs("demo: not all that was sent has arrived\n", stderr);
  return complete ? 0 : 1;
}
