#include "payload.h"

using bridge::BridgeType;

namespace {

std::vector<std::shared_ptr<void>> handles;
int received = 0;

template <BridgeType kType>
void StartAs() {
  ForEachPayload([](const std::string& name, const auto& expected) {
    using Payload = std::decay_t<decltype(expected)>;
    handles.push_back(std::make_shared<zorvix::Subscriber<Payload, kType>>(
        zorvix::Topic<Payload, kType>{name},
        [expected](const Payload& payload) { received += payload == expected; }));
    handles.push_back(std::make_shared<zorvix::Server<Payload, Payload, kType>>(
        zorvix::Service<Payload, Payload, kType>{name},
        [](const Payload& payload) { return payload; }));
  });
}

}  // namespace

void Start(BridgeType type) {
  type == BridgeType::Sync ? StartAs<BridgeType::Sync>() : StartAs<BridgeType::Async>();
}

int Received() { return received; }

void Stop() { handles.clear(); }
