// Sends without handles, and not linked with the bridge.
#include <dlfcn.h>
#include <zorvix/zorvix_flat.h>

#include "payload.h"

#define BIND(name) reinterpret_cast<decltype(&name)>(dlsym(library, #name))

namespace {
int answered = 0;
}

int Send(bridge::BridgeType type, void* library) {
  int accepted = 0;
  ForEachPayload([&](const std::string& name, const auto& payload) {
    using Payload = std::decay_t<decltype(payload)>;
    std::shared_ptr<const bridge::Control> topic =
        std::make_shared<bridge::Control>(bridge::Control{name, bridge::BridgeModule::Topic, type});
    BIND(ZorvixRegisterPublisher)(topic);
    accepted += BIND(ZorvixPublish)(topic, payload);
    BIND(ZorvixUnregisterPublisher)(topic);
    std::shared_ptr<const bridge::Control> service = std::make_shared<bridge::Control>(
        bridge::Control{name, bridge::BridgeModule::Service, type});
    BIND(ZorvixRegisterClient)(service);
    accepted += BIND(ZorvixCall)(service, [payload](const auto& serve) {
      std::any response;
      serve(payload, response);
      answered += std::any_cast<const Payload&>(response) == payload;
    });
    BIND(ZorvixUnregisterClient)(service);
  });
  return accepted;
}

int Answered() {
  BRIDGE_LOG(bridge::kLogInfo, "%d", answered);
  return std::exchange(answered, 0);
}
