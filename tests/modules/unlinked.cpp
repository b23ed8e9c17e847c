// Sends without handles, and not linked with the bridge.
#include <zorvix/zorvix_flat.h>

#include "payload.h"

int Send(void* library) {
  int right = 0;
  ForEachExchange([&](const std::string& name, const auto& payload, auto type) {
    using Payload = std::decay_t<decltype(payload)>;
    using bridge::BridgeModule, bridge::Control;
    std::shared_ptr<const Control> topic(new Control{name, BridgeModule::Topic, type});
    BIND(library, ZorvixRegisterPublisher)(topic);
    right += BIND(library, ZorvixPublish)(topic, payload);
    BIND(library, ZorvixUnregisterPublisher)(topic);
    std::shared_ptr<const Control> service(new Control{name, BridgeModule::Service, type});
    BIND(library, ZorvixRegisterClient)(service);
    BIND(library, ZorvixCall)
    (service, [&right, payload](const auto& serve) {
      std::any response;
      serve(payload, response);
      right += std::any_cast<const Payload&>(response) == payload;
    });
    BIND(library, ZorvixSpinOnce)();
    BIND(library, ZorvixUnregisterClient)(service);
  });
  BRIDGE_LOG(bridge::kLogInfo, "%d", right);
  return right;
}
