// Sends without handles, and not linked with the bridge.
#include <zorvix/zorvix_flat.h>

#include "payload.h"

bool Send(void* library) {
  bool right = true;
  ForEachPayload([&](const std::string& name, auto payload) {
    using bridge::BridgeModule, bridge::BridgeType, bridge::Control;
    std::shared_ptr<const Control> topic(new Control{name, BridgeModule::Topic, BridgeType::Async});
    BIND(library, ZorvixRegisterPublisher)(topic);
    BIND(library, ZorvixPublish)(topic, payload);
    BIND(library, ZorvixSpinOnce)();
    BIND(library, ZorvixUnregisterPublisher)(topic);
    std::shared_ptr<const Control> service(new Control{name, BridgeModule::Service});
    BIND(library, ZorvixRegisterClient)(service);
    std::any answer;
    BIND(library, ZorvixCall)(service, [&](const auto& serve) { serve(payload, answer); });
    BIND(library, ZorvixUnregisterClient)(service);
    const auto* const got = std::any_cast<decltype(payload)>(&answer);
    right &= got && *got == payload;
  });
  return right;
}
