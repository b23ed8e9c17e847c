// Uses handles. Built twice, as two modules.
#include <zorvix/inspect.h>
#include <zorvix/state.h>

#include <sstream>

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

int UseAll() {
  const zorvix::Topic<Reading> topic{"topic"};
  const zorvix::Service<Reading, Reading> service{"service"};
  const zorvix::Service<Reading, Reading, bridge::BridgeType::Async> queued_service{"service"};
  std::atomic<int> invocations{0};
  const auto use = [&](const Reading& reading) {
    ++invocations;
    return reading;
  };
  const auto take = [&](const std::optional<Reading>& answer) { invocations += answer ? 1 : 0; };
  const zorvix::SlowLog slow(std::chrono::hours(1));
  zorvix::Inbox inbox;
  const zorvix::Subscriber subscriber(topic, use, inbox);
  const zorvix::Subscriber queued(topic, use, zorvix::Delivery::Queued);
  const zorvix::Server server(service, use, inbox);
  const zorvix::Server queued_server(queued_service, use);
  const zorvix::Client client(service, inbox);
  {
    const zorvix::Workers workers(1);
    zorvix::InboxThread thread(inbox);
    zorvix::Publisher(topic).Publish({});
    client.Call({});
    client.Call({}, std::chrono::hours(1));
    client.Call({}, take);
    zorvix::Client(queued_service).Call({}).wait();
    inbox.Post([] {});
    thread.Stop(std::chrono::milliseconds(-1));
  }
  inbox.Drain(std::chrono::milliseconds(-1));
  std::ostringstream table;
  table << zorvix::Inspect();
  return invocations;
}

void Subscribe() {
  const auto inbox = std::make_shared<zorvix::Inbox>();
  const zorvix::Topic<int> never_drained{"never drained"};
  Add(zorvix::Subscriber(
      never_drained, [](int) {}, *inbox, zorvix::KeepLast{2}));
  handles.push_back(inbox);
}

std::size_t CountHandles() { return zorvix::Inspect().size(); }

void Leave() { handles.clear(); }
