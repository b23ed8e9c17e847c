// Sums up the samples on the workers and answers for the sum as a service, at once and queued.
#include <algorithm>

#include "demo.h"

namespace {

class Recorder {
 public:
  void Record(const demo::Sample& sample) {
    const std::lock_guard lock(mutex_);
    Add(summary_.load, sample.load);
    Add(summary_.busy, sample.busy);
    ++summary_.samples;
    summary_.threads.insert(std::this_thread::get_id());
  }
  demo::Summary Answer() {
    const std::lock_guard lock(mutex_);
    return summary_;
  }

 private:
  void Add(demo::Range& range, double value) const {
    range.least = summary_.samples == 0 ? value : std::min(range.least, value);
    range.most = std::max(range.most, value);
    range.sum += value;
  }

  std::mutex mutex_;  // several workers deliver at once
  demo::Summary summary_;
  // Destroyed before what their callables use.
  zorvix::Subscriber<demo::Sample> recording_{
      demo::kSamples, [this](auto& sample) { Record(sample); }, zorvix::Delivery::Queued};
  zorvix::Server<demo::Ask, demo::Summary> at_once_{demo::kSummary,
                                                    [this](auto&) { return Answer(); }};
  zorvix::Server<demo::Ask, demo::Summary, demo::BridgeType::Async> queued_{
      demo::kQueuedSummary, [this](auto&) { return Answer(); }};
};

std::optional<Recorder> recorder;

}  // namespace

void ModuleStart(double) { recorder.emplace(); }

void ModuleStop() { recorder.reset(); }
