// What the modules of the demo agree on: the names they meet under and the types they exchange.
//
//   topic   "sample"    Sync and Async   Sample     sampler -> alarm, recorder
//   topic   "enough"    SignleAsync      Sample     alarm -> host
//   service "summary"   Sync and Async   Summary    recorder, for the host
//   service "finish"    Sync             int        sampler ends sampling; how many it sent
//   service "seen"      Sync             Seen       alarm, for the host
#ifndef ZORVIX_EXAMPLES_DEMO_DEMO_H_
#define ZORVIX_EXAMPLES_DEMO_DEMO_H_

#include <zorvix/zorvix.h>

#include <set>
#include <string>
#include <thread>

namespace demo {

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

using Endpoint = std::shared_ptr<const bridge::Control>;
using Subscriber = std::function<void(const std::any&)>;
using Server = std::function<void(const std::any&, std::any&)>;

inline Endpoint Topic(const std::string& name, bridge::BridgeType type) {
  return std::make_shared<bridge::Control>(
      bridge::Control{name, bridge::BridgeModule::Topic, type});
}

inline Endpoint Service(const std::string& name, bridge::BridgeType type) {
  return std::make_shared<bridge::Control>(
      bridge::Control{name, bridge::BridgeModule::Service, type});
}

template <typename Callback>
unsigned long Handle(const Callback& callback) {
  return reinterpret_cast<unsigned long>(callback.get());
}

}  // namespace demo

// What each module exports for the host.
extern "C" {
__attribute__((visibility("default"))) void ModuleStart(double threshold);
__attribute__((visibility("default"))) void ModuleStop();
}

#endif  // ZORVIX_EXAMPLES_DEMO_DEMO_H_
