// Watches the samples as they are taken and tells the host once when enough of them had a load at
// or over the threshold.
#include "demo.h"

using bridge::BridgeType;
using bridge::Zorvix;

namespace {

constexpr int kEnough = 20;

demo::Endpoint samples, enough, seen_service;
demo::Seen seen;  // touched by the sampler's thread, and by the host once that has ended
std::shared_ptr<demo::Subscriber> watch;

}  // namespace

void ModuleStart(double threshold) {
  auto& bridge = Zorvix::GetInstance();
  samples = demo::Topic("sample", BridgeType::Sync);
  enough = demo::Topic("enough", BridgeType::SignleAsync);
  seen_service = demo::Service("seen", BridgeType::Sync);
  bridge.RegisterPublisher(enough);
  watch =
      std::make_shared<demo::Subscriber>([threshold, high = 0](const std::any& message) mutable {
        const auto& sample = std::any_cast<const demo::Sample&>(message);
        ++seen.samples;
        seen.on_samplers_thread &= sample.taken_on == std::this_thread::get_id();
        if (sample.load >= threshold && ++high == kEnough) {
          Zorvix::GetInstance().Publish(enough, sample);
        }
      });
  bridge.RegisterSubscriber(samples, watch);
  bridge.RegisterServer(
      seen_service,
      std::make_shared<demo::Server>([](const std::any&, std::any& response) { response = seen; }));
}

void ModuleStop() {
  auto& bridge = Zorvix::GetInstance();
  bridge.UnregisterSubscriber(samples, demo::Handle(watch));
  bridge.UnregisterServer(seen_service, 0);
  bridge.UnregisterPublisher(enough);
  watch.reset();
}
