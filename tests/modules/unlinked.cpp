// Sends without handles, and not linked with the bridge.
#include <zorvix/zorvix_flat.h>

#include "payload.h"

bool Send(const Module& bridge) {
  bool right = true;
  ForEachPayload([&](const std::string& name, auto payload) {
    using bridge::BridgeModule, bridge::Control;
    std::shared_ptr<const Control> topic(new Control{name, BridgeModule::Topic});
    BIND(bridge, ZorvixRegisterPublisher)(topic);
    BIND(bridge, ZorvixPublish)(topic, payload);
    BIND(bridge, ZorvixUnregisterPublisher)(topic);
    std::shared_ptr<const Control> service(new Control{name, BridgeModule::Service});
    BIND(bridge, ZorvixRegisterClient)(service);
    std::any answer;
    BIND(bridge, ZorvixCall)(service, [&](const auto& serve) { serve(payload, answer); });
    BIND(bridge, ZorvixUnregisterClient)(service);
    const auto* const got = std::any_cast<decltype(payload)>(&answer);
    right &= got && *got == payload;
  });
  return right;
}
