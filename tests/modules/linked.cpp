// Uses handles. Built twice, as two modules.
#include <zorvix/state.h>

#include "payload.h"

// All functions of the handles, used or not, for the check of what a module shows to the linker.
template class zorvix::Publisher<Reading>;
template class zorvix::Subscriber<Reading>;
template class zorvix::Client<Reading, Reading>;
template class zorvix::Server<Reading, Reading>;
template class zorvix::Holder<Reading>;
template class zorvix::Watcher<Reading>;

namespace {
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
    Add(zorvix::Subscriber(zorvix::Topic<Payload, bridge::BridgeType::Async>{name},
                           [last](const Payload& got) { *last = got; }));
    Add(zorvix::Server(zorvix::Service<Payload, Payload>{name},
                       [last](const Payload&) { return std::exchange(*last, {}); }));
  });
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
