// What holds when several threads use the bridge, and how workers start, stop and end.
#include <algorithm>

#include "bridge_test.h"

namespace {

TEST_F(Bridge, WorkerRunsWhatIsPostedAndLogsEachTurn) {
  const auto here = std::this_thread::get_id();
  auto& service = Service("s", BridgeType::Async);
  ZorvixRegisterServer(service, Server([=](auto&, auto&) {
                         EXPECT_TRUE(ZorvixIsSpin() && std::this_thread::get_id() != here);
                       }));
  auto& topic = Subscribed("t", BridgeType::Async, {Subscriber([&](auto&) {
                             for (int i = 0; i < 2; ++i) ZorvixCall(service, Request);
                           })});
  ZorvixStopSpin();  // finds no worker, and does not keep the next one from running
  EXPECT_THROW(ZorvixSpin(~0ul), std::length_error);
  EXPECT_FALSE(ZorvixIsSpin());
  std::thread spin([] { ZorvixSpin(1); });
  WaitForLog("Spin loop once lock.");
  const Lines turn{"I: Spin loop once lock.", "I: Spin loop once.", "I: event queue size: 0"};
  Lines expected;
  for (std::size_t round = 1; round <= 20; ++round) {  // most of which find the worker asleep
    expected.insert(expected.end(), turn.begin(), turn.end());
    if (round == 10) expected.insert(expected.end(), {"I: event queue size: 1", turn[2]});
    EXPECT_TRUE(round == 10 ? ZorvixPublish(topic, 1) : ZorvixCall(service, Request));
    WaitForLog(turn[0], round + 1);
  }
  expected.insert(expected.end(), {turn[0], turn[1], "I: Spin exit."});
  ZorvixStopSpin();
  spin.join();
  EXPECT_FALSE(ZorvixIsSpin());
  Lines log;  // less the polls, if the worker did not leave before the first
  for (const auto& line : TakeLog()) {
    if (line.find("elapsed") == std::string::npos) log.push_back(line);
  }
  EXPECT_EQ(log, expected);
}

TEST_F(Bridge, WorkersEndTheProcessByWhatIsNoStandardException) {
  ZorvixPublish(Subscribed("t", BridgeType::Async, {Subscriber([](auto&) { throw 1; })}), 1);
  EXPECT_DEATH(ZorvixSpin(1), "");
  EXPECT_THROW(ZorvixSpinOnce(), int);
}

// All hold in the callback that they share.
TEST_F(Bridge, ReceiversAreEnteredByAllThreadsAtOnceAndOneStopEndsAllSpins) {
  const auto log = Subscriber([](auto&) { Log("runs"); });
  const auto serve = Server([](auto&, auto&) { Log("runs"); });
  auto& topic = Subscribed("t", BridgeType::SignleAsync, {log, log});
  auto& sync_topic = Subscribed("t", BridgeType::Sync, {log});
  auto& service = Service("s", BridgeType::Async);
  auto& sync_service = Service("s", BridgeType::Sync);
  ZorvixRegisterServer(service, serve);
  ZorvixRegisterServer(sync_service, serve);
  const zorvix::Workers first(1), second(3);
  WaitForLog("Spin loop once lock.", 4);
  HoldLog("runs");
  ZorvixPublish(topic, 1);
  WaitForLog("runs", 2);
  std::vector<std::future<bool>> threads;
  for (int i = 0; i < 2; ++i) {
    ZorvixCall(service, Request);
    threads.push_back(std::async(std::launch::async, [&] { return ZorvixPublish(sync_topic, 1); }));
    threads.push_back(std::async(std::launch::async, ZorvixCall, sync_service, Request));
  }
  WaitForLog("runs", 8);
  HoldLog("");
  ZorvixStopSpin();
  WaitForLog("Spin exit.", 2);
}

TEST_F(Bridge, BoundOfTheQueueGrowsAndShrinksWithTheWorkers) {
  auto& topic = Subscribed("t", BridgeType::Async, {Subscriber([](auto&) { Log("holding"); })});
  for (const std::size_t count : {3u, 1u}) {
    TakeLog();
    const zorvix::Workers workers(count);
    HoldLog("holding");
    for (std::size_t i = 0; i < count; ++i) ZorvixPublish(topic, 1);
    WaitForLog("holding", count);
    TakeLog();
    for (std::size_t i = 0; i < 200 * count; ++i) ZorvixPublish(topic, 1);
    EXPECT_EQ(TakeLog(),
              Lines(100 * count, "W: event queue overflow, size: " + std::to_string(100 * count)));
    HoldLog("");
  }
}

// The stop is called by a task, which is on a worker that it waits for. A Spin waits for the stop.
TEST_F(Bridge, StopGivesUpAfter200MillisecondsAndUntilThenNoSpinBegins) {
  auto& topic = Subscribed("t", BridgeType::Async, {Subscriber([](auto&) { ZorvixStopSpin(); })});
  const zorvix::Workers workers(2);
  WaitForLog("Spin loop once lock.", 2);
  HoldLog("elapsed");
  ZorvixPublish(topic, 1);
  WaitForLog("elapsed");
  EXPECT_TRUE(ZorvixIsSpin());
  HoldLog("");
  ZorvixSpin(0);
  const auto log = TakeLog();
  EXPECT_EQ(Count(log, "W: StopSpin timeout."), 1u);
  std::vector<double> elapsed(1);
  for (const auto& line : log) {
    if (std::sscanf(line.c_str(), "I: elapsed: %lfms", &elapsed.back()) == 1)
      elapsed.emplace_back();
  }
  ASSERT_GT(elapsed.size(), 6u);
  EXPECT_LE(elapsed.size(), 203u) << "looks a millisecond apart";
  EXPECT_GT(elapsed.end()[-2], 200);
  EXPECT_LE(elapsed.end()[-3], 200);
}

// A stop meets workers at any point of their loop: none may miss it, and whatever was posted before
// it must have run when Spin returns. Polling brings the stop close behind a worker's first line.
TEST_F(Bridge, StopAtAnyMomentLosesNeitherWorkersNorTasks) {
  std::atomic<int> runs{0};
  auto& topic = Subscribed("t", BridgeType::Async, {Subscriber([&](auto&) { ++runs; })});
  for (int round = 0; round < 600; ++round) {
    runs = 0;
    TakeLog();
    {
      const zorvix::Workers workers(1);
      while (LogCount() == 0) {
      }
      for (int i = 0; i < round % 4; ++i) ZorvixPublish(topic, 1);
      ZorvixStopSpin();
    }
    ASSERT_EQ(Count(TakeLog(), "StopSpin timeout."), 0u);
    ASSERT_EQ(runs, round % 4);
  }
}

// The line is written, and held, under the lock of the queue.
TEST_F(Bridge, PollingAnEmptyQueueTakesNoLock) {
  auto& topic = Topic("t", BridgeType::SignleAsync);
  for (int i = 0; i < 101; ++i) ZorvixRegisterSubscriber(topic, Subscriber([](auto&) {}));
  ZorvixPublish(topic, 1);
  HoldLog("event queue size: 0");
  std::thread running(ZorvixSpinOnce);
  WaitForLog("event queue size: 0");
  EXPECT_FALSE(ZorvixRunOneceStep()) << "the queue has overflowed and is empty";
  HoldLog("");
  running.join();
}

// Every operation from several threads at once. What runs at once does so on endpoints that all
// share, where each thread's publications reach its own subscriber at least. The queued types have
// endpoints of each thread's own, with one receiver each, so that the books can be balanced: what
// was queued has run or was dropped with its line.
TEST_F(Bridge, BooksBalanceWhenEverythingRunsAtOnce) {
  using Counter = std::atomic<std::size_t>;
  Counter queued{0}, ran{0};
  auto& crowd = Topic("shared", BridgeType::Sync);  // makes changes of its list take longer
  for (int i = 0; i < 500; ++i) ZorvixRegisterSubscriber(crowd, Subscriber([](auto&) {}));
  const auto use_all = [&](const std::string& own) {
    const auto at_once = std::make_shared<Counter>(0);
    const auto count = [&ran, at_once](const std::any& message, auto&&...) {
      auto* const counter = std::any_cast<Counter*>(message);
      if (counter == &ran || counter == at_once.get()) ++*counter;
    };
    const auto subscriber = Subscriber(count);
    const auto server = Server(count);
    for (int round = 0; round < 3600; ++round) {
      const BridgeType type{round % 3};
      const bool queues = type != BridgeType::Sync;
      const bridge::Control control{queues ? own : "shared", BridgeModule{round / 3 % 2}, type};
      Endpoint ends[4];
      for (auto& end : ends) end = std::make_shared<bridge::Control>(control);
      ZorvixRegisterPublisher(ends[0]);
      ZorvixRegisterSubscriber(ends[1], subscriber);
      queued += ZorvixPublish(ends[0], queues ? &ran : at_once.get()) && queues;
      ZorvixUnregisterSubscriber(ends[1], Handle(subscriber));
      ZorvixUnregisterPublisher(ends[0]);
      ZorvixRegisterClient(ends[2]);
      ZorvixRegisterServer(ends[3], server);
      queued += queues && ZorvixCall(ends[2], [&ran](auto& serve) {
                  std::any response;
                  serve(&ran, response);
                });
      ZorvixUnregisterServer(ends[3]);
      ZorvixUnregisterClient(ends[2]);
      if (round % 100 == 0) ZorvixRunOneceStep();
    }
    EXPECT_EQ(*at_once, 1200u);
  };
  std::vector<std::future<void>> threads;
  for (const auto* name : {"a", "b", "c", "d"})
    threads.push_back(std::async(std::launch::async, use_all, name));
  for (int i = 0; i < 20; ++i) {
    const zorvix::Workers workers(2);
  }
  threads.clear();
  ZorvixSpinOnce();
  const auto log = TakeLog();
  EXPECT_EQ(queued, 4u * 600 * 8);
  EXPECT_EQ(ran + Count(log, "event queue overflow"), queued);
  EXPECT_EQ(Count(log, "event queue size"), ran);
}

}  // namespace
