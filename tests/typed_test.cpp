// What the handles promise beyond the plain interface.
#include "bridge_test.h"

namespace {

using zorvix::Delivery;

const zorvix::Topic<int> kTopic{"t"};
const zorvix::Topic<int, BridgeType::Async> kQueuedTopic{"t"};
const zorvix::Service<int, int> kService{"s"};
const zorvix::Service<int, int, BridgeType::Async> kQueuedService{"s"};

// Ends a handle while its callable is held on another thread. The last line before the destructor
// waits has "callback" in it.
template <typename Handle>
void EndWhileRunning(Handle handle, const std::atomic<bool>& running) {
  HoldLog("running");
  auto run = std::async(std::launch::async, [] {
    zorvix::Publisher(kTopic).Publish(1);
    zorvix::Client(kService).Call(1);
    ZorvixSpinOnce();
  });
  WaitForLog("running");
  auto end = std::async(std::launch::async, [&] {
    std::optional(std::move(handle)).reset();
    EXPECT_FALSE(running);
  });
  WaitForLog("callback");
  HoldLog("");
  end.get();
  run.get();
  TakeLog();
}

TEST_F(Bridge, NoCallableRunsAfterItsHandle) {
  const zorvix::Publisher publisher(kTopic);
  const zorvix::Client client(kService);
  const zorvix::Client later(kQueuedService);
  std::atomic<bool> running{false};
  const auto callable = [&](int number) {
    running = true;
    Log("running");
    running = false;
    return number;
  };
  EndWhileRunning(zorvix::Subscriber(kTopic, callable), running);
  EndWhileRunning(zorvix::Subscriber(kTopic, callable, Delivery::Queued), running);
  EndWhileRunning(zorvix::Server(kService, callable), running);

  // Taken by a publication under way, or in the queue.
  Subscribed("t", BridgeType::Sync, {Subscriber([](auto&) { Log("first"); })});
  const auto fail = [](int number) { return ADD_FAILURE(), number; };
  std::optional queued(zorvix::Subscriber(kTopic, fail, Delivery::Queued));
  std::optional server(zorvix::Server(kQueuedService, fail));
  publisher.Publish(1);
  auto answer = later.Call(1);
  std::optional at_once(zorvix::Subscriber(kTopic, fail));
  HoldLog("first");
  auto run = std::async(std::launch::async, [&] { publisher.Publish(1); });
  WaitForLog("first", 2);
  queued.reset();
  server.reset();
  at_once.reset();
  HoldLog("");
  run.get();
  ZorvixSpinOnce();
  EXPECT_FALSE(answer.get());
}

TEST_F(Bridge, CallableMayDestroyItsHandleAndNamesGoWithTheLast) {
  for (const auto delivery : {Delivery::AtOnce, Delivery::Queued}) {
    const bool queued = delivery == Delivery::Queued;
    int runs = 0;
    std::optional<zorvix::Subscriber<int>> handle;
    handle.emplace(
        kTopic, [&](int) { handle.reset(), ++runs; }, delivery);
    zorvix::Publisher publisher(kTopic), moved = std::move(publisher);
    EXPECT_FALSE(publisher.Publish(1));
    EXPECT_TRUE(moved.Publish(1));
    EXPECT_EQ(moved.Publish(1), queued);
    moved = zorvix::Publisher(zorvix::Topic<int>{"another"});
    ZorvixSpinOnce();
    EXPECT_EQ(runs, 1);
    moved = std::move(publisher);
    EXPECT_EQ(Count(TakeLog(), "control has been unregistered"), queued ? 3u : 2u);
  }
}

TEST_F(Bridge, EverySubscriberGetsEveryMessageOfItsTypeInOrder) {
  std::vector<int> got[4];
  const auto append = [&](int to) { return [&got, to](int number) { got[to].push_back(number); }; };
  {
    const zorvix::Subscriber at_once(kTopic, append(0));
    const zorvix::Subscriber one(kTopic, append(1), Delivery::Queued);
    const zorvix::Subscriber two(kTopic, append(2), Delivery::Queued);
    const zorvix::Subscriber first(kQueuedTopic, append(3)), second(kQueuedTopic, append(3));
    zorvix::Publisher(zorvix::Topic<char>{"t"}).Publish('x');
    EXPECT_EQ(Count(TakeLog(), "E: error: "), 3u) << "of another type";
    for (int number : {1, 2, 3}) {
      zorvix::Publisher(kTopic).Publish(number);
      zorvix::Publisher(kQueuedTopic).Publish(number);
    }
    EXPECT_TRUE(got[0].size() == 3 && got[1].empty() && got[2].empty());
    const zorvix::Workers workers(1);
    WaitForLog("Spin loop once lock.");
  }
  for (const auto& numbers : got) EXPECT_EQ(numbers, (std::vector{1, 2, 3}));
  EXPECT_EQ(Count(TakeLog(), "E: "), 0u) << "skips in silence what is empty";
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
    zorvix::Server server(kService, [](int) { return 0; });
    server = zorvix::Server(kService, serve);
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

TEST_F(Bridge, WorkersStopHoweverEarlyAndHoweverLate) {
  for (int i = 0; i < 50; ++i) {
    const zorvix::Workers workers(2);
  }
  std::atomic<bool> ran{false};
  const zorvix::Subscriber task(kQueuedTopic, [&](int) {
    WaitForLog("StopSpin timeout.");
    ran = true;
  });
  TakeLog();
  {
    const zorvix::Workers workers(1);
    WaitForLog("Spin loop once lock.");
    zorvix::Publisher(kQueuedTopic).Publish(1);
  }
  EXPECT_TRUE(ran);
}

}  // namespace
