// Uses handles. Built twice, as two modules.
#include <zorvix/state.h>

#include "payload.h"

namespace {
std::vector<std::shared_ptr<void>> handles;
int received = 0;
const zorvix::State<Reading> kState{"state"};
std::optional<zorvix::Holder<Reading>> holder;
std::optional<zorvix::Watcher<Reading>> watcher;
}  // namespace

void Receive() {
  ForEachExchange([](const std::string& name, const auto& expected, auto type) {
    using Payload = std::decay_t<decltype(expected)>;
    handles.push_back(std::make_shared<zorvix::Subscriber<Payload, type()>>(
        zorvix::Topic<Payload, type()>{name},
        [expected](const Payload& payload) { received += payload == expected; }));
    handles.push_back(std::make_shared<zorvix::Server<Payload, Payload, type()>>(
        zorvix::Service<Payload, Payload, type()>{name},
        [](const Payload& payload) { return payload; }));
  });
}

int Received() { return received; }

int Send(void*) {
  int right = 0;
  ForEachExchange([&](const std::string& name, const auto& payload, auto type) {
    using Payload = std::decay_t<decltype(payload)>;
    right += zorvix::Publisher(zorvix::Topic<Payload, type()>{name}).Publish(payload);
    auto answer = zorvix::Client(zorvix::Service<Payload, Payload, type()>{name}).Call(payload);
    bridge::Zorvix::GetInstance().SpinOnce();
    if constexpr (type() == bridge::BridgeType::Sync) {
      right += answer == payload;
    } else {
      right += answer.get() == payload;
    }
  });
  return right;
}

void Hold(int value) {
  if (!holder) holder.emplace(kState);
  holder->Set({"a unit too long to be stored inside a string", value});
}

int Watch() {
  if (!watcher) watcher.emplace(kState);
  return watcher->Newest() ? watcher->Newest()->value : 0;
}

void Leave() {
  handles.clear();
  holder.reset();
  watcher.reset();
}
