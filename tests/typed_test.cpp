// What the handles promise beyond the plain interface.
#include "bridge_test.h"

namespace {

using zorvix::Delivery;

const zorvix::Topic<int> kTopic{"t"};
const zorvix::Topic<int, BridgeType::Async> kQueuedTopic{"t"};
const zorvix::Service<int, int> kService{"s"};
const zorvix::Service<int, int, BridgeType::Async> kQueuedService{"s"};

// Ends a handle while its callable is held on another thread, until the destructor says that it
// waits.
void EndWhileRunning(std::shared_ptr<void> handle, const std::atomic<bool>& running) {
  HoldLog("running");
  auto run = std::async(std::launch::async, [] {
    zorvix::Publisher(kTopic).Publish(1);
    zorvix::Client(kService).Call(1);
    ZorvixSpinOnce();
  });
  WaitForLog("running");
  auto end = std::async(std::launch::async, [&] {
    handle.reset();
    EXPECT_FALSE(running);
  });
  WaitForLog("a destructor waits for its callable to return, name: ");
  HoldLog("");
  end.get();
  run.get();
  TakeLog();
}

TEST_F(Bridge, NoCallableRunsAfterItsHandle) {
  std::atomic<bool> running{false};
  const auto callable = [&](int number) {
    running = true;
    Log("running");
    running = false;
    return number;
  };
  using OfInts = zorvix::Subscriber<int>;
  EndWhileRunning(std::make_shared<OfInts>(kTopic, callable), running);
  EndWhileRunning(std::make_shared<OfInts>(kTopic, callable, Delivery::Queued), running);
  EndWhileRunning(std::make_shared<zorvix::Server<int, int>>(kService, callable), running);

  // Taken by a publication under way, or in the queue.
  Subscribed("t", BridgeType::Sync, {Subscriber([](auto&) { Log("first"); })});
  const auto fail = [](int number) { return ADD_FAILURE(), number; };
  std::optional server(zorvix::Server(kQueuedService, fail));
  std::optional at_once(OfInts(kTopic, fail));
  auto answer = zorvix::Client(kQueuedService).Call(1);
  HoldLog("first");
  auto run = std::async(std::launch::async, [] { zorvix::Publisher(kTopic).Publish(1); });
  WaitForLog("first");
  server.reset();
  at_once.reset();
  HoldLog("");
  run.get();
  ZorvixSpinOnce();
  EXPECT_FALSE(answer.get());
}

// Some runs deep, with more of them queued; what the callable owns goes with the last.
TEST_F(Bridge, CallableMayDestroyItsHandleAndGoesWithItsLastRun) {
  const auto destroy = [](const auto& topic, Delivery delivery, int depth) {
    const zorvix::Publisher publisher(topic);
    std::shared_ptr<void> handle;
    int runs = 0;
    long owners = 0;
    auto owned = std::make_shared<int>();
    const std::weak_ptr<int> seen = owned;
    const auto callable = [&, owned = std::move(owned)](int more) {
      ++runs;
      more > 0 ? void(publisher.Publish(more - 1)) : handle.reset();
      EXPECT_EQ(seen.use_count(), owners) << "in runs around, too";
    };
    using Handle = decltype(zorvix::Subscriber(topic, callable));
    handle = std::make_shared<Handle>(topic, callable, delivery);
    owners = seen.use_count();
    for (int i = 0; i < 2; ++i) publisher.Publish(depth);
    ZorvixRunOneceStep();
    EXPECT_EQ(runs, depth + 1);
    EXPECT_EQ(seen.use_count(), owners - 1) << "though queued tasks share the gate";
    ZorvixSpinOnce();
  };
  destroy(kTopic, Delivery::Direct, 2);
  destroy(kTopic, Delivery::Queued, 0);
  destroy(kQueuedTopic, Delivery::Queued, 0);
}

TEST_F(Bridge, HandlesMoveAndNamesGoWithTheLast) {
  std::string got;
  const auto append = [&](char letter) { return [&got, letter](int) { got += letter; }; };
  zorvix::Publisher publisher(kTopic), moved = std::move(publisher);
  zorvix::Subscriber a(kTopic, append('a')), b(kTopic, append('b'));
  zorvix::Server server(kService, [](int number) { return number; });
  zorvix::Client client(kService), other(std::move(client));
  a = std::move(b);
  EXPECT_FALSE(publisher.Publish(1));
  EXPECT_EQ(client.Call(1), std::nullopt);
  EXPECT_EQ(Count(TakeLog(), "E: "), 0u) << "from what was moved from";
  EXPECT_TRUE(moved.Publish(1));
  EXPECT_EQ(got, "b") << "what was assigned to has left, though the other is there still";
  EXPECT_EQ(other.Call(1), 1);
  TakeLog();
  moved = zorvix::Publisher(zorvix::Topic<int>{"another"});
  a = std::move(b);
  EXPECT_EQ(Count(TakeLog(), "control has been unregistered, real_topic_name: t/"), 1u);
  server = zorvix::Server(kService, [](int number) { return 2 * number; });
  EXPECT_EQ(other.Call(1), 2);
  other = std::move(client);
  server = zorvix::Server(zorvix::Service<int, int>{"x"}, [](int number) { return number; });
  EXPECT_EQ(Count(TakeLog(), "control has been unregistered, real_name: s/"), 1u);
}

TEST_F(Bridge, MessagesOfAnotherTypeAndTheSecondOfAQueuedTopicAreSkipped) {
  std::vector<int> got;
  const auto append = [&](int number) { got.push_back(number); };
  const zorvix::Subscriber at_once(kTopic, append), queued(kTopic, append, Delivery::Queued);
  const zorvix::Subscriber first(kQueuedTopic, append), second(kQueuedTopic, append);
  zorvix::Publisher(zorvix::Topic<char>{"t"}).Publish('x');
  EXPECT_EQ(Count(TakeLog(), "E: error: "), 2u);
  zorvix::Publisher(kQueuedTopic).Publish(1);
  zorvix::Publisher(kTopic).Publish(2);
  ZorvixSpinOnce();
  EXPECT_EQ(got, (std::vector{2, 1, 2}));
  EXPECT_EQ(Count(TakeLog(), "E: "), 0u);
}

// As little as is allowed of a message or an answer, and with a limit to its copies.
struct Plain {
  explicit Plain(int copies) : left(copies) {}
  Plain(const Plain& other) : left(other.left - 1) {
    if (left < 0) throw left;
  }
  [[nodiscard]] int Left() const { return left; }
  const int left;
};

TEST_F(Bridge, ValuesAreCopiedNoMoreThanTheyMustBe) {
  const zorvix::Topic<Plain> topic{"p"};
  int left = -1;
  const zorvix::Subscriber member(topic, &Plain::Left);
  const zorvix::Subscriber lambda(topic, [&](const Plain& plain) { return left = plain.Left(); });
  zorvix::Publisher(topic).Publish(Plain(1));
  EXPECT_EQ(left, 0) << "one copy, which a move could save";
  const zorvix::Service<int, Plain> service{"p"};
  const zorvix::Service<int, Plain, BridgeType::Async> queued{"p"};
  const auto answer = [](int copies) { return Plain(copies); };
  const zorvix::Server server(service, answer);
  const zorvix::Server later(queued, answer);
  for (const int copies : {0, 1, 9}) {  // 2 fail in the promise, where ThreadSanitizer hangs
    auto then = zorvix::Client(queued).Call(copies);
    EXPECT_EQ(zorvix::Client(service).Call(copies).has_value(), copies == 9);
    ZorvixSpinOnce();
    EXPECT_EQ(then.get().has_value(), copies == 9);
  }
}

TEST_F(Bridge, CallsAreAnsweredOrNotButNeverThrow) {
  const zorvix::Client client(kService);
  const zorvix::Client later(kQueuedService);
  const auto answer = [&](int number) {
    auto queued = later.Call(number);
    ZorvixSpinOnce();
    const auto second = queued.get();
    EXPECT_EQ(client.Call(number), second);
    return second;
  };
  EXPECT_EQ(answer(1), std::nullopt);
  const auto serve = [&](int number) {
    if (number == 4) return *client.Call(1) + 1;  // no lock is held meanwhile
    if (number == 2) throw std::runtime_error("bad luck");
    if (number == 3) throw number;
    return 10 * number;
  };
  {
    const zorvix::Server server(kService, serve);
    const zorvix::Server queued(kQueuedService, serve);
    EXPECT_EQ(answer(4), 11);
    for (int number : {2, 3}) EXPECT_EQ(answer(number), std::nullopt);
    auto lost = later.Call(1);
    for (int i = 0; i < 100; ++i) later.Call(1);
    EXPECT_EQ(lost.get(), std::nullopt);
    ZorvixSpinOnce();
  }
  const auto other = Server([](auto&, auto& response) { response = 'x'; });
  ZorvixRegisterServer(Service("s", BridgeType::Sync), other);
  ZorvixRegisterServer(Service("s", BridgeType::Async), other);
  EXPECT_EQ(answer(1), std::nullopt);
}

TEST_F(Bridge, ServerThatTookOverStaysWhenTheEarlierOneGoes) {
  std::optional<zorvix::Server<int, int, BridgeType::Async>> first, second;
  const auto one = [](int) { return 1; };
  const auto two = [](int) { return 2; };
  const auto call = [] { return zorvix::Client(kQueuedService).Call(0); };
  const auto ask = [&] {
    auto answer = call();
    ZorvixSpinOnce();
    return answer.get();
  };
  for (const int order : {0, 1, 2}) {
    const bool first_goes_first = order < 2;
    first.emplace(kQueuedService, one);
    if (order == 1) call();
    second.emplace(kQueuedService, two);
    (first_goes_first ? first : second).reset();
    EXPECT_EQ(ask(), first_goes_first ? std::optional(2) : std::nullopt);
    EXPECT_EQ(Count(TakeLog(), "no server"), first_goes_first ? 0u : 1u);
    (first_goes_first ? second : first).reset();
    EXPECT_EQ(Count(TakeLog(), "control has been unregistered"), 1u);
  }
  // The later one has found the earlier one in the table, but is not in there yet.
  for (int round = 0; round < 50; ++round) {
    first.emplace(kQueuedService, one);
    HoldLog("callback is motified");
    auto taking = std::async(std::launch::async, [&] { second.emplace(kQueuedService, two); });
    WaitForLog("callback is motified");
    auto leaving = std::async(std::launch::async, [&] { first.reset(); });
    for (int i = 0; i < round; ++i) std::this_thread::yield();
    HoldLog("");
    taking.get();
    leaving.get();
    ASSERT_EQ(ask(), 2);
    TakeLog();
  }
  const auto plain = Server([](auto&, auto& answer) { answer = 3; });
  ZorvixRegisterServer(Service("s", BridgeType::Async), plain);
  second.reset();
  EXPECT_EQ(ask(), 3);
}

}  // namespace
