// Sums up the samples on whichever thread delivers them and answers for the sum as a service.
#include <algorithm>
#include <mutex>

#include "demo.h"

using bridge::BridgeType;
using bridge::Zorvix;

namespace {

demo::Endpoint samples, at_once, queued;
std::shared_ptr<demo::Subscriber> record;
std::mutex mutex;  // several workers deliver at once
demo::Summary summary;

void Add(demo::Range& range, double value) {
  range.least = summary.samples == 0 ? value : std::min(range.least, value);
  range.most = std::max(range.most, value);
  range.sum += value;
}

}  // namespace

void ModuleStart(double) {
  auto& bridge = Zorvix::GetInstance();
  samples = demo::Topic("sample", BridgeType::Async);
  at_once = demo::Service("summary", BridgeType::Sync);
  queued = demo::Service("summary", BridgeType::Async);
  record = std::make_shared<demo::Subscriber>([](const std::any& message) {
    const auto& sample = std::any_cast<const demo::Sample&>(message);
    const std::lock_guard lock(mutex);
    Add(summary.load, sample.load);
    Add(summary.busy, sample.busy);
    ++summary.samples;
    summary.threads.insert(std::this_thread::get_id());
  });
  const auto answer = std::make_shared<demo::Server>([](const std::any&, std::any& response) {
    const std::lock_guard lock(mutex);
    response = summary;
  });
  bridge.RegisterSubscriber(samples, record);
  bridge.RegisterServer(at_once, answer);
  bridge.RegisterServer(queued, answer);
}

void ModuleStop() {
  auto& bridge = Zorvix::GetInstance();
  bridge.UnregisterSubscriber(samples, demo::Handle(record));
  bridge.UnregisterServer(at_once, 0);
  bridge.UnregisterServer(queued, 0);
  record.reset();
}
