// What handles promise beyond the plain interface: lifetimes, types, answers and workers.
#include <zorvix/inspect.h>
#include <zorvix/presence.h>
#include <zorvix/state.h>

#include <array>
#include <map>

#include "bridge_test.h"

namespace {

const zorvix::Topic<int> kTopic{"t"};
const zorvix::Topic<int, BridgeType::Async> kQueuedTopic{"t"};
const zorvix::Service<int, int> kService{"s"};
const zorvix::Service<int, int, BridgeType::Async> kQueuedService{"s"};
const zorvix::State<int> kState{"state"};

int Twice(int number) { return 2 * number; }
int Fail(int number) {
  ADD_FAILURE() << "invoked with " << number;
  return number;
}

using Typed = Bridge;

TEST_F(Typed, MovedFromHandlesDoNothing) {
  int received = 0;
  zorvix::Publisher publisher(kTopic);
  zorvix::Subscriber subscriber(kTopic, [&](int) { ++received; });
  zorvix::Server server(kService, Twice);
  zorvix::Client client(kService);
  zorvix::Client queued_client(kQueuedService);
  const zorvix::Publisher new_publisher(std::move(publisher));
  const zorvix::Subscriber new_subscriber(std::move(subscriber));
  const zorvix::Server new_server(std::move(server));
  const zorvix::Client new_client(std::move(client));
  const zorvix::Client new_queued_client(std::move(queued_client));
  zorvix::Holder holder(kState);
  const zorvix::Holder new_holder(std::move(holder));
  zorvix::Watcher watcher(kState, Fail);
  const zorvix::Watcher new_watcher(std::move(watcher));
  TakeLog();

  holder.Set(1);
  EXPECT_FALSE(watcher.Latest() || watcher.WaitForValue());
  EXPECT_FALSE(publisher.Publish(1));
  EXPECT_EQ(client.Call(1), std::nullopt);
  EXPECT_EQ(queued_client.Call(1).get(), std::nullopt);

  EXPECT_EQ(TakeLog(), Lines{});
  EXPECT_TRUE(new_publisher.Publish(1));
  EXPECT_EQ(received, 1);
  EXPECT_EQ(new_client.Call(1), 2);
}

TEST_F(Typed, MessageOfAnotherTypeIsLoggedInsteadOfDelivered) {
  zorvix::Inbox inbox;
  const zorvix::Subscriber direct(kTopic, Fail);
  const zorvix::Subscriber with_inbox(kTopic, Fail, inbox);

  const zorvix::Publisher of_that_name(kTopic);
  const zorvix::Publisher of_that_type(zorvix::Topic<char>{"u"});
  auto control = MakeControl("t", BridgeModule::Topic, BridgeType::Sync);
  ZorvixRegisterPublisher(control);
  const auto publish_and_expect = [&](const std::string& publisher) {
    ZorvixPublish(control, 'x');
    EXPECT_EQ(Count(TakeLog(),
                    "E: error: bad any_cast: the message is a char, the subscriber takes an int, "
                    "publisher: " +
                        publisher + ", subscriber: zorvix_test, "),
              2u);
  };

  publish_and_expect("without a handle");
  const zorvix::Publisher publisher(zorvix::Topic<char>{"t"});
  publish_and_expect("zorvix_test");
  ZorvixUnregisterPublisher(control);
  EXPECT_EQ(inbox.Drain(), 0u);
}

TEST_F(Typed, OnlyTheFirstSubscriberOfAQueuedTopicGetsAMessage) {
  std::vector<int> received;
  const auto append = [&](int number) { received.push_back(number); };
  const zorvix::Subscriber first(kQueuedTopic, append);
  const zorvix::Subscriber second(kQueuedTopic, Fail);

  zorvix::Publisher(kQueuedTopic).Publish(1);
  ZorvixSpinOnce();

  EXPECT_EQ(received, std::vector{1});
  EXPECT_EQ(Count(TakeLog(), "E: "), 0u);
}

// The bridge finds a subscriber by an address, which another one could get.
TEST_F(Typed, UsedUpSubscriberOfAOneShotTopicRemovesNoLaterOne) {
  const zorvix::Topic<int, BridgeType::SignleAsync> topic{"t"};
  const zorvix::Publisher publisher(topic);
  int received = 0;
  std::optional used_up(zorvix::Subscriber(topic, [](int) {}));
  publisher.Publish(1);
  ZorvixSpinOnce();
  const zorvix::Subscriber later(topic, [&](int) { ++received; });

  used_up.reset();
  publisher.Publish(2);
  ZorvixSpinOnce();

  EXPECT_EQ(received, 1);
}

// Returns the answer of both services, which must be equal.
std::optional<int> Ask(int number) {
  auto queued = zorvix::Client(kQueuedService).Call(number);
  ZorvixSpinOnce();
  const auto answer = queued.get();
  EXPECT_EQ(zorvix::Client(kService).Call(number), answer);
  return answer;
}

TEST_F(Typed, CallIsAnsweredWithNoneWithoutAServerThatAnswers) {
  const auto serve = [](int number) {
    if (number == 1) throw std::runtime_error("bad luck");
    if (number == 2) throw number;
    return 10 * number;
  };
  EXPECT_EQ(Ask(3), std::nullopt);
  {
    const zorvix::Server server(kService, serve);
    const zorvix::Server queued(kQueuedService, serve);
    EXPECT_EQ(Ask(1), std::nullopt);
    EXPECT_EQ(Ask(2), std::nullopt);
    EXPECT_EQ(Ask(3), 30);
  }
  const auto other_type = Server([](auto&, auto& response) { response = 'x'; });
  Service("s", BridgeType::Sync, other_type);
  Service("s", BridgeType::Async, other_type);
  EXPECT_EQ(Ask(3), std::nullopt);
}

using QueuedServer = zorvix::Server<int, int, BridgeType::Async>;
std::optional<int> AskQueued() {
  auto answer = zorvix::Client(kQueuedService).Call(0);
  ZorvixSpinOnce();
  return answer.get();
}
const auto one = [](int) { return short{1}; };  // is converted
const auto two = [](int) { return 2; };

TEST_F(Typed, LatestServerThatStillExistsAnswers) {
  std::array order{0, 1, 2};
  do {
    SCOPED_TRACE(testing::PrintToString(order));
    std::map<int, QueuedServer> servers;
    for (const int number : {0, 1, 2}) {
      servers.emplace(number, QueuedServer(kQueuedService, [=](int) { return number; }));
    }

    for (const int destroyed : order) {
      EXPECT_EQ(AskQueued(), servers.rbegin()->first);
      zorvix::Client(kQueuedService).Call(0);  // shares the latest server
      servers.erase(destroyed);
    }
    EXPECT_EQ(AskQueued(), std::nullopt);
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(Typed, ServerSharesItsNameWithParticipantsWithoutHandles) {
  Endpoint client = MakeControl("s", BridgeModule::Service, BridgeType::Async);
  ZorvixRegisterClient(client);
  std::optional server(QueuedServer(kQueuedService, one));
  EXPECT_EQ(AskQueued(), 1);

  server.reset();
  EXPECT_EQ(AskQueued(), std::nullopt);

  server.emplace(kQueuedService, two);
  Service("s", BridgeType::Async, Server([](auto&, auto& answer) { answer = 3; }));
  server.reset();
  EXPECT_EQ(AskQueued(), 3);
  ZorvixUnregisterClient(client);
}

TEST_F(Typed, MoveAssignmentEndsTheOldRegistrationAndLeavesNoneBehind) {
  const auto ignore = [](auto&) {};
  const auto expect_moved = [](auto make) {
    auto handle = make("old");
    auto moved = make("new");

    handle = std::move(moved);

    const auto handles = zorvix::Inspect();
    ASSERT_EQ(handles.size(), 1u);
    EXPECT_EQ(handles[0].name, "new") << handles[0].kind;
  };
  using Name = const char*;
  expect_moved([](Name name) { return zorvix::Publisher(zorvix::Topic<int>{name}); });
  expect_moved([&](Name name) { return zorvix::Subscriber(zorvix::Topic<int>{name}, ignore); });
  expect_moved([](Name name) { return zorvix::Client(zorvix::Service<int, int>{name}); });
  expect_moved([](Name name) { return zorvix::Server(zorvix::Service<int, int>{name}, Twice); });
  expect_moved([](Name name) { return zorvix::Holder(zorvix::State<int>{name}); });
  expect_moved([](Name name) { return zorvix::Watcher(zorvix::State<int>{name}); });
  expect_moved([](Name name) { return zorvix::Presence(zorvix::Topic<int>{name}); });
}

TEST_F(Typed, PublisherWithOptionalAudienceLogsNothing) {
  const zorvix::Publisher publisher(zorvix::Topic<std::any>{"t"}, zorvix::Audience::Optional);

  EXPECT_TRUE(publisher.Publish({})) << "an empty std::any is a message like any other";

  EXPECT_EQ(TakeLog(), Lines{});
}

}  // namespace
