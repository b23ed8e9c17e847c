#include "payload.h"

using bridge::BridgeType;

namespace {

std::vector<std::function<bool()>> answers;  // whether each is there and right

template <BridgeType kType>
int SendAs() {
  int accepted = 0;
  ForEachPayload([&](const std::string& name, const auto& payload) {
    using Payload = std::decay_t<decltype(payload)>;
    accepted += zorvix::Publisher(zorvix::Topic<Payload, kType>{name}).Publish(payload);
    auto answer = zorvix::Client(zorvix::Service<Payload, Payload, kType>{name}).Call(payload);
    if constexpr (kType == BridgeType::Sync) {
      answers.push_back([=] { return answer == payload; });
    } else {
      answers.push_back([=, later = answer.share()] { return later.get() == payload; });
    }
    ++accepted;
  });
  return accepted;
}

}  // namespace

int Send(BridgeType type, void*) {
  return type == BridgeType::Sync ? SendAs<BridgeType::Sync>() : SendAs<BridgeType::Async>();
}

int Answered() {
  int right = 0;
  for (const auto& answer : std::exchange(answers, {})) right += answer();
  return right;
}
