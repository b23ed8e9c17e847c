// Presences: how many subscribers, servers or holders there are.
#include <zorvix/presence.h>

#include <memory>
#include <utility>

#include "endpoint.h"
#include "match_queue.h"

namespace zorvix::detail {
namespace {

const char* KindOf(Counterparts counterparts) {
  switch (counterparts) {
    case Counterparts::kSubscribers:
      return "Subscriber";
    case Counterparts::kServers:
      return "Server";
    default:
      return "Holder";
  }
}

}  // namespace

struct PresenceState {
  PresenceState(const Endpoint& endpoint, Counterparts counterparts,
                std::shared_ptr<MatchQueue> its_queue)
      : closer{std::move(its_queue)},
        participant(
            counterparts == Counterparts::kHolders ? StateName(endpoint.name) : endpoint.name,
            counterparts == Counterparts::kSubscribers ? bridge::BridgeModule::Topic
                                                       : bridge::BridgeModule::Service,
            endpoint.type),
        watch(participant.control.get(), closer.queue),
        listed(Describe(*closer.queue, counterparts)) {}

  struct Closer {
    ~Closer() { queue->Close(); }
    const std::shared_ptr<MatchQueue> queue;
  };
  const Closer closer;
  const Participant participant;  // keeps the address of the name
  const Watch watch;
  const Listed listed;

 private:
  Record& Describe(Record& record, Counterparts counterparts) const {
    record.participant = &participant;
    record.counted_kind = KindOf(counterparts);
    return record;
  }
};

void Destroyer::operator()(PresenceState* state) const { delete state; }

Owned<PresenceState> MakePresence(const Endpoint& endpoint, Counterparts counterparts,
                                  Callable callable, const Place& place) {
  // The type is that of the counterparts: it does not matter to where the callable is invoked.
  const Endpoint own = {endpoint.name, bridge::BridgeType::Sync, endpoint.module};
  const auto queue =
      std::make_shared<MatchQueue>(own, StrandOrDirect(place, own), std::move(callable));
  Owned<PresenceState> presence(new PresenceState(endpoint, counterparts, queue));
  queue->Begin(presence->watch.existing());
  return presence;
}

Matched Now(const PresenceState& presence) { return presence.closer.queue->Latest(); }

}  // namespace zorvix::detail
