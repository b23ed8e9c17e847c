// Built three times: linked with the bridge, bound to it by dlsym only (SENDER_BY_DLSYM), and
// without the definition that makes libc++ compare types by name.
#include <dlfcn.h>
#include <zorvix/zorvix_flat.h>

#include "payload.h"

#ifdef SENDER_BY_DLSYM
#define BIND(name) reinterpret_cast<decltype(&name)>(dlsym(library, #name))
#else
#define BIND(name) ((void)library, &name)
#endif

using bridge::BridgeModule;

namespace {
int answered = 0;
}

int Send(bridge::BridgeType type, void* library) {
  int accepted = 0;
  ForEachPayload(BridgeModule::Topic, type, [&](auto control, const auto& payload) {
    BIND(ZorvixRegisterPublisher)(control);
    accepted += BIND(ZorvixPublish)(control, payload);
    BIND(ZorvixUnregisterPublisher)(control);
  });
  ForEachPayload(BridgeModule::Service, type, [&](auto control, const auto& payload) {
    using Payload = std::decay_t<decltype(payload)>;
    BIND(ZorvixRegisterClient)(control);
    accepted += BIND(ZorvixCall)(control, [payload](const auto& serve) {
      std::any response;
      serve(payload, response);
      answered += Equal(std::any_cast<const Payload&>(response), payload);
    });
    BIND(ZorvixUnregisterClient)(control);
  });
  return accepted;
}

int Answered() { return answered; }
