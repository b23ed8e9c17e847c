// Watches the samples as they are taken and tells the host once when enough of them had a load at
// or over the threshold.
#include "demo.h"

namespace {

constexpr int kEnoughSamples = 20;

struct Alarm {
  explicit Alarm(double load) : threshold(load) {}

  void Watch(const demo::Sample& sample) {
    ++seen.samples;
    seen.on_samplers_thread &= sample.taken_on == std::this_thread::get_id();
    if (sample.load >= threshold && ++high == kEnoughSamples) enough.Publish(sample);
  }

  const double threshold;
  int high = 0;
  demo::Seen seen;  // touched by the sampler's thread, and by the host once that has ended
  zorvix::Publisher<demo::Sample, demo::BridgeType::SignleAsync> enough{demo::kEnough};
  zorvix::Subscriber<demo::Sample> watching{demo::kSamples,
                                            [this](auto& sample) { Watch(sample); }};
  zorvix::Server<demo::Ask, demo::Seen> answering{demo::kSeen, [this](auto&) { return seen; }};
};

std::optional<Alarm> alarm_module;

}  // namespace

void ModuleStart(double threshold) { alarm_module.emplace(threshold); }

void ModuleStop() { alarm_module.reset(); }
