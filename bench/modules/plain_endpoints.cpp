// A publisher and a subscriber of the plain interface.
#include <zorvix/zorvix.h>

namespace {

std::shared_ptr<const bridge::Control> control = std::make_shared<bridge::Control>(
    bridge::Control{"readings", bridge::BridgeModule::Topic, bridge::BridgeType::Sync});
bridge::SubscriberCallback callback;
double last = 0;

}  // namespace

extern "C" void Start() {
  callback = std::make_shared<std::function<void(const std::any&)>>(
      [](const std::any& message) { last = std::any_cast<double>(message); });
  auto& the_bridge = bridge::Zorvix::GetInstance();
  the_bridge.RegisterPublisher(control);
  the_bridge.RegisterSubscriber(control, callback);
  the_bridge.Publish(control, 21.5);
}

extern "C" void Stop() {
  auto& the_bridge = bridge::Zorvix::GetInstance();
  the_bridge.UnregisterSubscriber(control, reinterpret_cast<unsigned long>(callback.get()));
  the_bridge.UnregisterPublisher(control);
}
