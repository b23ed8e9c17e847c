#include <zorvix/zorvix_flat.h>

#include "payload.h"

using bridge::BridgeModule;

namespace {

struct Registered {
  std::shared_ptr<const bridge::Control> topic, service;
  unsigned long handle;
};
std::vector<Registered> all;
int received = 0;

}  // namespace

void Start(bridge::BridgeType type) {
  ForEachPayload(BridgeModule::Topic, type, [](auto control, const auto& expected) {
    using Payload = std::decay_t<decltype(expected)>;
    const auto callback =
        std::make_shared<std::function<void(const std::any&)>>([expected](const std::any& message) {
          received += Equal(std::any_cast<const Payload&>(message), expected);
        });
    ZorvixRegisterSubscriber(control, callback);
    all.push_back({control, nullptr, reinterpret_cast<unsigned long>(callback.get())});
  });
  ForEachPayload(BridgeModule::Service, type, [](auto control, const auto& expected) {
    using Payload = std::decay_t<decltype(expected)>;
    const auto callback = std::make_shared<std::function<void(const std::any&, std::any&)>>(
        [](const std::any& request, std::any& response) {
          response = std::any_cast<const Payload&>(request);
        });
    ZorvixRegisterServer(control, callback);
    all.push_back({nullptr, control, 0});
  });
}

int Received() { return received; }

void Stop() {
  for (auto& endpoint : all) {
    if (endpoint.topic) ZorvixUnregisterSubscriber(endpoint.topic, endpoint.handle);
    if (endpoint.service) ZorvixUnregisterServer(endpoint.service);
  }
  all.clear();
}
