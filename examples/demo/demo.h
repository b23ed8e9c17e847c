// What the modules of the demo agree on: the names they meet under and the types they exchange.
#ifndef ZORVIX_EXAMPLES_DEMO_DEMO_H_
#define ZORVIX_EXAMPLES_DEMO_DEMO_H_

#include <zorvix/typed.h>

#include <set>

namespace demo {

using bridge::BridgeType;

struct Sample {
  int number;
  double load;  // average of the last minute
  double busy;  // percent of the CPU time since the sample before
  std::thread::id taken_on;
};

struct Range {
  double least = 0, sum = 0, most = 0;
};

struct Summary {
  int samples = 0;
  Range load, busy;
  std::set<std::thread::id> threads;  // that delivered the samples
};

struct Seen {
  int samples = 0;
  bool on_samplers_thread = true;
};

struct Ask {};  // a request that says nothing

// From the sampler, to the alarm at once and to the recorder from the queue.
inline const zorvix::Topic<Sample> kSamples{"sample"};
// From the alarm to the host, once.
inline const zorvix::Topic<Sample, BridgeType::SignleAsync> kEnough{"enough"};
// The recorder tells the host.
inline const zorvix::Service<Ask, Summary> kSummary{"summary"};
inline const zorvix::Service<Ask, Summary, BridgeType::Async> kQueuedSummary{"summary"};
// The sampler ends sampling and tells how many samples it sent.
inline const zorvix::Service<Ask, int> kFinish{"finish"};
// The alarm tells the host.
inline const zorvix::Service<Ask, Seen> kSeen{"seen"};

}  // namespace demo

// What each module exports for the host.
extern "C" {
__attribute__((visibility("default"))) void ModuleStart(double threshold);
__attribute__((visibility("default"))) void ModuleStop();
}

#endif  // ZORVIX_EXAMPLES_DEMO_DEMO_H_
