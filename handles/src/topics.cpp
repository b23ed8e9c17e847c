// Publishers and subscribers.
#include <zorvix/detail/library.h>

#include <any>
#include <memory>
#include <optional>
#include <typeinfo>
#include <utility>

#include "direct.h"
#include "endpoint.h"
#include "inbox.h"

namespace zorvix::detail {

struct PublisherState : Record {
  PublisherState(const Endpoint& endpoint, const std::type_info& type, Audience audience)
      : Record("Publisher", endpoint.name, endpoint.module),
        participant(endpoint.name, bridge::BridgeModule::Topic, endpoint.type) {
    KeepLoadedIfQueuedByBridge(endpoint);
    message_type = &type;
    Record::participant = &participant;
    if (audience == Audience::Optional) {
      optional_audience.emplace(endpoint.name, endpoint.type, [](const std::any&) {});
      own_participants = 2;
    }
    listed.emplace(*this);
  }
  const Participant participant;
  // Keeps the bridge from logging that there is no subscriber. On an Async topic it could be the
  // first subscriber, and take each message.
  std::optional<Subscription> optional_audience;
  std::optional<Listed> listed;
};

struct SubscriberState : Registered<CountedSubscription> {
  using Registered::Registered;
};

void Destroyer::operator()(PublisherState* state) const { delete state; }
void Destroyer::operator()(SubscriberState* state) const { delete state; }

Owned<PublisherState> MakePublisher(const Endpoint& endpoint, const std::type_info& type,
                                    Audience audience) {
  return Owned<PublisherState>(new PublisherState(endpoint, type, audience));
}

bool Publish(PublisherState& publisher, std::any&& message) {
  const Section section("Publish", publisher.name);
  publisher.sent.Add();
  if (IsExiting(publisher.name)) return false;
  return Bridge().Publish(publisher.participant.control, std::move(message));
}

Owned<SubscriberState> Subscribe(const Endpoint& endpoint, const MessageType& type,
                                 Callable callable, const Place& place, KeepLast keep) {
  CheckedDepth(keep);
  KeepLoadedIfQueuedByBridge(endpoint);
  if (auto strand = StrandAt(place, endpoint)) {
    const auto queue =
        std::make_shared<MessageQueue>("Subscriber", endpoint.name, endpoint.module,
                                       std::move(strand), type, std::move(callable), keep);
    const auto push = [queue](const std::any& message) { queue->Push(message); };
    return Owned<SubscriberState>(new SubscriberState(queue, endpoint, push));
  }
  const auto direct = std::make_shared<Direct>("Subscriber", endpoint, type, std::move(callable));
  const auto deliver = [direct](const std::any& message) {
    // The second and later subscribers of an Async topic get an empty message.
    if (!message.has_value()) return;
    const Gate::Pass pass(direct->gate());
    if (!pass.admitted()) return;
    const void* const found = direct->Find(message);
    if (found == nullptr) {
      const char* const publisher = ModuleOfPublisher(direct->name, message.type());
      direct->Reject("message", {"publisher", message.type(), publisher},
                     {"subscriber", *direct->type.type, direct->module});
    }
    direct->Invoke(found, nullptr);
  };
  return Owned<SubscriberState>(new SubscriberState(direct, endpoint, deliver));
}

}  // namespace zorvix::detail
