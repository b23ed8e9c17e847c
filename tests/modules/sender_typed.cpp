#include "payload.h"

using bridge::BridgeType;

namespace {

int answered = 0;

template <BridgeType kType>
int SendAs() {
  int accepted = 0;
  ForEachPayload([&](const std::string& name, const auto& payload) {
    using Payload = std::decay_t<decltype(payload)>;
    accepted += zorvix::Publisher(zorvix::Topic<Payload, kType>{name}).Publish(payload);
    auto answer = zorvix::Client(zorvix::Service<Payload, Payload, kType>{name}).Call(payload);
    bridge::Zorvix::GetInstance().SpinOnce();
    ++accepted;
    if constexpr (kType == BridgeType::Sync) {
      answered += answer == payload;
    } else {
      answered += answer.get() == payload;
    }
  });
  return accepted;
}

}  // namespace

int Send(BridgeType type, void*) {
  return type == BridgeType::Sync ? SendAs<BridgeType::Sync>() : SendAs<BridgeType::Async>();
}

int Answered() { return answered; }
