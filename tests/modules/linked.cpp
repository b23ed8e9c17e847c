// Uses handles. Built twice, as two modules.
#include <zorvix/state.h>

#include "payload.h"

namespace {
template <typename Payload>
using Topic = zorvix::Topic<Payload, bridge::BridgeType::Async>;
const zorvix::State<Reading> kState{"state"};
std::vector<std::shared_ptr<void>> handles;

template <typename Handle>
void Add(Handle handle) {
  handles.push_back(std::make_shared<Handle>(std::move(handle)));
}
}  // namespace

void Receive() {
  ForEachPayload([](const std::string& name, auto payload) {
    using Payload = decltype(payload);
    const auto last = std::make_shared<Payload>();
    Add(zorvix::Subscriber(Topic<Payload>{name}, [last](const Payload& got) { *last = got; }));
    Add(zorvix::Server(zorvix::Service<Payload, Payload>{name},
                       [last](const Payload&) { return std::exchange(*last, {}); }));
  });
}

bool Send(void*) {
  bool right = true;
  ForEachPayload([&](const std::string& name, auto payload) {
    using Payload = decltype(payload);
    zorvix::Publisher(Topic<Payload>{name}).Publish(payload);
    bridge::Zorvix::GetInstance().SpinOnce();
    right &= zorvix::Client(zorvix::Service<Payload, Payload>{name}).Call(payload) == payload;
  });
  return right;
}

void Hold(int value) {
  zorvix::Holder holder(kState);
  holder.Set({"a unit too long to be stored inside a string", value});
  Add(std::move(holder));
}

void Watch(int* newest) {
  Add(zorvix::Watcher(kState, [newest](const Reading& reading) { *newest = reading.value; }));
}

void Leave() { handles.clear(); }
