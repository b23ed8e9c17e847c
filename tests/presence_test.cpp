// What a presence promises: it counts every handle of its name, and no change is lost. Also waiting
// for a server.
#include <zorvix/inspect.h>

#include "bridge_test.h"
#include "modules/payload.h"

namespace {

using std::chrono::milliseconds;
using zorvix::Delivery;
using zorvix::Matched;
using zorvix::Presence;

const zorvix::Topic<int> kTopic{"name"};
const zorvix::Topic<int, BridgeType::Async> kQueuedTopic{"name"};
const zorvix::Service<int, int> kService{"name"};
const zorvix::State<int> kState{"name"};

// Such as "2 of 3", after three arrivals and one departure.
std::string Text(const Matched& matched) {
  EXPECT_EQ(matched.count, matched.arrived - matched.departed);
  return std::to_string(matched.count) + " of " + std::to_string(matched.arrived);
}
auto AppendTo(Lines& seen) {
  return [&seen](const Matched& matched) { seen.push_back(Text(matched)); };
}

using Handle = std::shared_ptr<void>;
template <typename Any>
Handle Share(Any handle) {
  return std::make_shared<Any>(std::move(handle));
}
Handle AddSubscriber() {
  return Share(zorvix::Subscriber(kTopic, [](int) {}));
}
Handle AddServer() {
  return Share(zorvix::Server(kService, [](int) { return 0; }));
}

using Presences = Bridge;

TEST_F(Presences, PresenceSeesEveryHandleOfItsKindAndNameAndNoOther) {
  using Callable = std::function<void(const Matched&)>;
  struct Row {
    const char* name;
    Presence (*watch)(Callable);
    Handle (*add)();
  };
  const Row rows[] = {
      {"topic", [](Callable f) { return Presence(kTopic, std::move(f)); }, AddSubscriber},
      {"queued topic", [](Callable f) { return Presence(kQueuedTopic, std::move(f)); },
       [] { return Share(zorvix::Subscriber(kQueuedTopic, [](int) {})); }},
      {"service", [](Callable f) { return Presence(kService, std::move(f)); }, AddServer},
      {"state", [](Callable f) { return Presence(kState, std::move(f)); },
       [] { return Share(zorvix::Holder(kState)); }}};
  Subscribed("name", BridgeType::Sync, {Subscriber([](auto&) {})});
  Service("name", BridgeType::Sync, Server([](auto&, auto&) {}));
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Lines seen;
    Handle early = row.add();

    Presence moved = row.watch(AppendTo(seen));
    const Presence presence(std::move(moved));
    {
      const Handle late = row.add();
      const zorvix::Publisher publisher(kTopic, zorvix::Audience::Optional);
      const zorvix::Watcher watcher(kState);
      const zorvix::Client client(kService);
      for (const auto& other : rows) {
        if (&other != &row) other.add();
      }
      for (const auto& handle : zorvix::Inspect()) {
        if (handle.kind == "Presence") {
          EXPECT_EQ(handle.counterparts, 2u);
        }
      }
    }
    early.reset();

    EXPECT_EQ(seen, (Lines{"1 of 1", "2 of 2", "1 of 2", "0 of 2"}));
    EXPECT_EQ(Text(presence.Now()), "0 of 2");
    EXPECT_EQ(Text(moved.Now()), "0 of 0");
  }
}

TEST_F(Presences, PresenceIsInvokedOnceItsCounterpartIsRegisteredOrUnregistered) {
  const zorvix::Publisher publisher(kTopic);
  const auto publish = [&](const Matched& now) {
    EXPECT_EQ(publisher.Publish(1), now.count != 0) << Text(now);
  };
  const Presence presence(kTopic, publish);

  for (int i = 0; i < 2; ++i) AddSubscriber();
}

TEST_F(Presences, PresenceInDrainsSkipsNoChangeInItsTotals) {
  zorvix::Inbox inbox;
  const auto drain = [&] {
    ZorvixSpinOnce();
    inbox.Drain();
  };
  Lines queued_seen;
  Lines seen;
  const Presence queued(kTopic, AppendTo(queued_seen), Delivery::Queued);
  const Presence with_inbox(kTopic, AppendTo(seen), inbox);
  EXPECT_EQ(seen.size() + queued_seen.size(), 0u);
  drain();

  Handle subscriber = AddSubscriber();
  drain();
  subscriber.reset();
  subscriber = AddSubscriber();  // as many now as at the last drain
  EXPECT_EQ(Text(queued.Now()) + ", " + Text(with_inbox.Now()), "1 of 2, 1 of 2");
  const zorvix::HandleInfo handle = zorvix::Inspect().at(1);
  EXPECT_EQ(handle.kind + std::to_string(handle.pending), "Presence1");
  drain();
  drain();
  for (int i = 0; i < 2; ++i) AddSubscriber();
  drain();

  EXPECT_EQ(seen, (Lines{"0 of 0", "1 of 1", "1 of 2", "1 of 4"}));
  EXPECT_EQ(queued_seen, seen);
}

TEST_F(Presences, PresenceMayChangeWhatItCountsAndDestroyItself) {
  Lines seen;
  std::vector<Handle> added;
  auto owned = std::make_shared<int>();
  const std::weak_ptr<int> observer = owned;
  std::optional<Presence> presence;
  std::optional<Presence> constructed_inside;
  const Presence before(kTopic, [](auto&) { throw std::runtime_error("bad luck"); });
  presence.emplace(kTopic, [&, owned = std::move(owned)](const Matched& matched) {
    seen.push_back(Text(matched));
    if (matched.arrived == 1) constructed_inside.emplace(kTopic);
    if (matched.arrived == 1) added.push_back(AddSubscriber());
    if (matched.departed == 1) presence.reset();
    if (matched.count == 2) added.clear();
    EXPECT_FALSE(observer.expired());
  });
  const Presence after(kTopic);

  const Handle subscriber = AddSubscriber();

  EXPECT_EQ(seen, (Lines{"0 of 0", "1 of 1", "2 of 2", "1 of 2"}));
  EXPECT_TRUE(observer.expired());
  const Lines others{Text(before.Now()), Text(after.Now()), Text(constructed_inside->Now())};
  EXPECT_EQ(others, Lines(3, "1 of 2"));
}

TEST_F(Presences, PresenceSeesHandlesOfModulesThatAreLoadedApart) {
  const Module one("hidden");
  const Module two("visible");
  Lines seen;
  BIND(one, Subscribe)();

  const Presence presence(zorvix::Topic<int>{"never drained"}, AppendTo(seen));
  BIND(two, Subscribe)();
  BIND(one, Leave)();
  BIND(two, Leave)();

  EXPECT_EQ(seen, (Lines{"1 of 1", "2 of 2", "1 of 2", "0 of 2"}));
  EXPECT_TRUE(one.Unload() && two.Unload());
}

TEST_F(Presences, WaitForServerEndsWithAServerHandleOrAfterItsTime) {
  const zorvix::Client client(kService);
  Service("name", BridgeType::Sync, Server([](auto&, auto&) {}));
  const Presence presence(kService);
  const Handle subscriber = AddSubscriber();
  EXPECT_FALSE(client.WaitForServer(milliseconds(1)));
  Handle server = AddServer();

  EXPECT_TRUE(client.WaitForServer(milliseconds(0)));
  server.reset();
  EXPECT_FALSE(client.WaitForServer(milliseconds(0)));
}

TEST_F(Presences, WaitForServerWithoutLimitIsRefusedInADrainOfTheClientsInbox) {
  zorvix::Inbox inbox;
  const zorvix::Client client(kService, inbox);
  const std::string error = "a callable waits without limit for a server";
  const auto wait_in_drain = [&](zorvix::Timeout timeout) {
    bool has_server = false;
    inbox.Post([&, timeout] { has_server = client.WaitForServer(timeout); });
    inbox.Drain();
    return has_server;
  };

  EXPECT_FALSE(wait_in_drain(milliseconds(1)));
  EXPECT_EQ(Count(TakeLog(), error), 0u);

  EXPECT_FALSE(wait_in_drain(zorvix::Timeout::Forever()));
  EXPECT_EQ(Count(TakeLog(), error), 1u);

  const Handle server = AddServer();
  EXPECT_TRUE(wait_in_drain(zorvix::Timeout::Forever()));
  EXPECT_EQ(Count(TakeLog(), error), 0u);
}

}  // namespace
