// What handles promise beyond the plain interface: lifetimes, types, answers and workers.
#include <zorvix/state.h>

#include <array>
#include <map>

#include "bridge_test.h"
#include "threads.h"

namespace {

using zorvix::Delivery;

const zorvix::Topic<int> kTopic{"t"};
const zorvix::Topic<int, BridgeType::Async> kQueuedTopic{"t"};
const zorvix::Topic<int> kEnd{"end"};
const zorvix::Service<int, int> kService{"s"};
const zorvix::Service<int, int, BridgeType::Async> kQueuedService{"s"};
const zorvix::State<int> kState{"state"};

int Twice(int number) { return 2 * number; }
int Fail(int number) {
  ADD_FAILURE() << "invoked with " << number;
  return number;
}

template <typename Handle>
std::shared_ptr<void> Share(Handle handle) {
  return std::make_shared<Handle>(std::move(handle));
}

TEST_F(Bridge, DestructorWaitsForACallableOnAnotherThread) {
  zorvix::Inbox inbox;
  const auto queued = Delivery::Queued;
  bool running = false;  // not atomic, so ThreadSanitizer sees whether the destructor orders it
  const auto callable = [&](int number) {
    running = true;
    Log("running");
    running = false;
    return number;
  };
  const auto called = [&](auto& place) {
    zorvix::Client client(kService, place);
    client.Call(1, [=](auto) { callable(1); });  // there is no server
    return Share(std::move(client));
  };
  const auto count = [&](const zorvix::Matched& now) {
    if (now.count != 0) callable(1);
  };
  const std::function<std::shared_ptr<void>()> rows[] = {
      [&] { return Share(zorvix::Subscriber(kTopic, callable)); },
      [&] { return Share(zorvix::Subscriber(kTopic, callable, Delivery::Queued)); },
      [&] { return Share(zorvix::Subscriber(kTopic, callable, inbox)); },
      [&] { return Share(zorvix::Server(kService, callable)); },
      [&] { return Share(zorvix::Server(kService, callable, Delivery::Queued)); },
      [&] { return Share(zorvix::Server(kService, callable, inbox)); },
      [&] { return called(queued); },
      [&] { return called(inbox); },
      [&] { return Share(zorvix::Watcher(kState, callable)); },
      [&] { return Share(zorvix::Watcher(kState, callable, Delivery::Queued)); },
      [&] { return Share(zorvix::Watcher(kState, callable, inbox)); },
      [&] { return Share(zorvix::Presence(kEnd, count)); },
      [&] { return Share(zorvix::Presence(kEnd, count, inbox)); }};
  for (const auto& build : rows) {
    SCOPED_TRACE(&build - rows);
    zorvix::Holder holder(kState);
    auto handle = build();
    HoldLog("running");
    auto invocation = std::async(std::launch::async, [&] {
      zorvix::Publisher(kTopic).Publish(1);
      zorvix::Client(kService, inbox).Call(1, [](auto) {});
      holder.Set(1);
      const zorvix::Subscriber counted(kEnd, Fail);
      inbox.Post([] { Log("next"); });
      ZorvixSpinOnce();
      inbox.Drain();
    });
    WaitForLog("running");

    auto end = std::async(std::launch::async, [&] {
      handle.reset();
      EXPECT_FALSE(running);
    });

    WaitForLog("a destructor waits for its callable to return, name: ");
    EXPECT_FALSE(zorvix::Publisher(kTopic).Publish(2)) << "it has unregistered before";
    HoldLog("next");
    end.get();  // not later than its own callable
    HoldLog("");
    invocation.get();
    TakeLog();
  }
}

// The numbers are not atomic, so ThreadSanitizer sees whatever the library does not order.
TEST_F(Bridge, CallableSeesWhatWasDoneBeforeItsMessageWasSent) {
  int before = 0;
  int seen = 0;
  const auto callable = [&](auto&&...) { return seen = before; };
  zorvix::Inbox inbox;
  const zorvix::Subscriber subscriber(kTopic, callable, inbox);
  const zorvix::Server server(kService, callable, inbox);
  const zorvix::Watcher watcher(kState, callable, inbox);
  const std::function<void()> rows[] = {
      [] { zorvix::Publisher(kTopic).Publish(1); }, [] { zorvix::Holder(kState).Set(1); },
      [] { zorvix::Client(kService).Call(1); }, [&] { inbox.Post(callable); }};
  for (const auto& send : rows) {
    zorvix::InboxThread thread(inbox);
    ++before;

    send();

    thread.Stop();
    EXPECT_EQ(seen, before);
  }
}

TEST_F(Bridge, CallableIsDestroyedWithItsHandleWhileOthersAreInvoked) {
  Subscribed("t", BridgeType::Sync, {Subscriber([](auto&) { Log("held"); })});
  zorvix::Inbox inbox;
  const auto owned = std::make_shared<int>();
  const auto fail = [owned](int number) { Fail(number); };
  const auto owners = owned.use_count();
  std::optional direct(zorvix::Subscriber(kTopic, fail));
  std::optional with_inbox(zorvix::Subscriber(kTopic, fail, inbox));
  HoldLog("held");
  auto publication = std::async(std::launch::async, [] { zorvix::Publisher(kTopic).Publish(1); });
  inbox.Post([] { Log("held"); });
  auto drain = std::async(std::launch::async, [&] { inbox.Drain(); });
  WaitForLog("held", 2);

  direct.reset();
  with_inbox.reset();

  EXPECT_EQ(owned.use_count(), owners);
  HoldLog("");
}

// The handle is destroyed in another callable. Invocations may be nested, with more messages
// queued, and may throw afterwards.
template <typename Topic, typename... Options>
void DestroyInItsCallable(const Topic& topic, int depth, bool throws, Options... options) {
  const zorvix::Publisher publisher(topic);
  const zorvix::Publisher end(kEnd);
  std::shared_ptr<void> handle;
  const zorvix::Subscriber destroy(kEnd, [&](int) { handle.reset(); });
  int invocations = 0;
  long owners = 0;
  auto owned = std::make_shared<int>();
  const std::weak_ptr<int> observer = owned;
  const auto callable = [&, owned = std::move(owned)](int more) {
    ++invocations;
    if (more > 0) {
      publisher.Publish(more - 1);
    } else {
      end.Publish(0);
    }
    EXPECT_EQ(observer.use_count(), owners) << "the callable lives as long as its invocations";
    if (throws) throw 0;
  };
  handle = Share(zorvix::Subscriber(topic, callable, options...));
  owners = observer.use_count();

  try {
    for (int i = 0; i < 2; ++i) publisher.Publish(depth);
    ZorvixRunOneceStep();
  } catch (int) {
  }

  EXPECT_EQ(invocations, depth + 1);
  EXPECT_EQ(observer.use_count(), owners - 1) << "and is destroyed then";
  ZorvixSpinOnce();
}

TEST_F(Bridge, CallableMayDestroyItsHandle) {
  for (const bool throws : {false, true}) {
    DestroyInItsCallable(kTopic, 2, throws);
    DestroyInItsCallable(kTopic, 0, throws, Delivery::Queued);
  }
  DestroyInItsCallable(kQueuedTopic, 0, false);
}

// One thread is in the callable, and another comes while the destructor waits.
TEST_F(Bridge, CallableMayDestroyItsHandleWhileOtherThreadsUseIt) {
  Subscribed("t", BridgeType::Sync, {Subscriber([](const std::any& message) {
               if (std::any_cast<int>(message) == 2) Log("held before it");
             })});
  std::optional<zorvix::Subscriber<int>> subscriber;
  subscriber.emplace(kTopic, [&](int number) {
    EXPECT_NE(number, 2);
    if (number == 1) Log("held in it");
    if (number == 3) subscriber.reset();
  });
  const auto publish = [](int number) {
    return std::async(std::launch::async, [=] { zorvix::Publisher(kTopic).Publish(number); });
  };
  HoldLog("held");
  auto held = publish(1);
  auto refused = publish(2);
  WaitForLog("held", 2);

  auto destroyed = publish(3);

  WaitForLog("a destructor waits for its callable to return, name: t");
  HoldLog("held in it");
  refused.get();
  HoldLog("");
  destroyed.get();  // hangs if nobody wakes the destructor
}

TEST_F(Bridge, MovedFromHandlesDoNothing) {
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
  TakeLog();

  EXPECT_FALSE(publisher.Publish(1));
  EXPECT_EQ(client.Call(1), std::nullopt);
  EXPECT_EQ(queued_client.Call(1).get(), std::nullopt);

  EXPECT_EQ(TakeLog(), Lines{});
  EXPECT_TRUE(new_publisher.Publish(1));
  EXPECT_EQ(received, 1);
  EXPECT_EQ(new_client.Call(1), 2);
}

TEST_F(Bridge, MessageOfAnotherTypeIsLoggedInsteadOfDelivered) {
  zorvix::Inbox inbox;
  const zorvix::Subscriber direct(kTopic, Fail);
  const zorvix::Subscriber with_inbox(kTopic, Fail, inbox);

  zorvix::Publisher(zorvix::Topic<char>{"t"}).Publish('x');

  EXPECT_EQ(inbox.Drain(), 0u);
  EXPECT_EQ(Count(TakeLog(),
                  "E: error: bad any_cast: the message is a char, the subscriber takes an int, "
                  "publisher: zorvix_test, subscriber: zorvix_test, "),
            2u);
}

TEST_F(Bridge, OnlyTheFirstSubscriberOfAQueuedTopicGetsAMessage) {
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
TEST_F(Bridge, UsedUpSubscriberOfAOneShotTopicRemovesNoLaterOne) {
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

TEST_F(Bridge, CallIsAnsweredWithNoneWithoutAServerThatAnswers) {
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

TEST_F(Bridge, LatestServerThatStillExistsAnswers) {
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

// In half of the rounds, the new server is still being registered when the other one is destroyed.
TEST_F(Bridge, NewServerStaysWhenTheOldOneIsDestroyedAtTheSameTime) {
  for (int round = 0; round < 100 && !HasFailure(); ++round) {
    std::optional first(QueuedServer(kQueuedService, one));
    std::optional<QueuedServer> second;
    const bool hold = round % 2 == 0;
    if (hold) HoldLog("callback is motified");

    OnThreads(2, [&](int thread) {
      if (thread == 0) {
        second.emplace(kQueuedService, two);
      } else {
        for (int i = 0; i < round / 10; ++i) std::this_thread::yield();
        HoldLog("");
        first.reset();
      }
    });

    EXPECT_EQ(AskQueued(), 2);
    TakeLog();
  }
}

TEST_F(Bridge, ServerSharesItsNameWithParticipantsWithoutHandles) {
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

TEST_F(Bridge, PublisherWithOptionalAudienceLogsNothing) {
  const zorvix::Publisher publisher(zorvix::Topic<std::any>{"t"}, zorvix::Audience::Optional);

  EXPECT_TRUE(publisher.Publish({})) << "an empty std::any is a message like any other";

  EXPECT_EQ(TakeLog(), Lines{});
}

}  // namespace
