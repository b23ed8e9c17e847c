// What holds when several threads use the bridge, and how workers start, stop and end.
#include <algorithm>

#include "bridge_test.h"

namespace {

TEST_F(Bridge, WorkerRunsWhatIsPostedAndLogsEachTurn) {
  const auto here = std::this_thread::get_id();
  const auto run = [=](auto&&...) {
    EXPECT_TRUE(ZorvixIsSpin() && std::this_thread::get_id() != here);
  };
  auto& topic = Subscribed("t", BridgeType::Async, {Subscriber(run)});
  auto& service = Service("s", BridgeType::Async);
  ZorvixRegisterServer(service, Server(run));
  ZorvixStopSpin();  // finds no worker, and does not keep the next one from running
  std::thread spin([] { ZorvixSpin(1); });
  WaitForLog("Spin loop once lock.");
  const std::string lock = "I: Spin loop once lock.", loop = "I: Spin loop once.";
  Lines expected;
  for (int round = 0; round < 20; ++round) {  // most of which find the worker asleep
    EXPECT_TRUE(round == 0 ? ZorvixPublish(topic, 1) : ZorvixCall(service, Request));
    expected.insert(expected.end(), {lock, loop, "I: event queue size: 0"});
    WaitForLog("Spin loop once lock.", expected.size() / 3 + 1);
  }
  expected.insert(expected.end(), {lock, loop, "I: Spin exit."});
  ZorvixStopSpin();
  spin.join();
  EXPECT_FALSE(ZorvixIsSpin());
  Lines log;  // less the polls, if the worker did not leave before the first
  for (const auto& line : TakeLog()) {
    if (line.find("elapsed") == std::string::npos) log.push_back(line);
  }
  EXPECT_EQ(log, expected);
}

TEST_F(Bridge, PublicationWakesAllWorkers) {
  const auto log = Subscriber([](auto&) { Log("runs"); });
  auto& topic = Subscribed("t", BridgeType::Async, {log, log});
  const zorvix::Workers workers(2);
  WaitForLog("Spin loop once lock.", 2);
  HoldLog("runs");
  ZorvixPublish(topic, 1);
  WaitForLog("runs", 2);
  HoldLog("");
}

TEST_F(Bridge, FullQueueLosesItsOldestTaskAndItsBoundGrowsWithTheWorkers) {
  for (const int count : {0, 1, 3}) {
    SCOPED_TRACE(count);
    const int bound = std::max(100, 100 * count);
    std::atomic<int> runs{0}, lost{0};
    auto& holding = Subscribed("hold" + std::to_string(count), BridgeType::Async,
                               {Subscriber([](auto&) { Log("holding"); })});
    auto& topic =
        Subscribed("t" + std::to_string(count), BridgeType::Async, {Subscriber([&](auto& message) {
                     const int number = std::any_cast<int>(message);
                     EXPECT_TRUE(count > 1 || number == runs + 2);  // in order
                     lost += number < 2;
                     ++runs;
                   })});
    {
      const zorvix::Workers workers(static_cast<unsigned long>(count));
      HoldLog("holding");
      for (int i = 0; i < count; ++i) ZorvixPublish(holding, 1);
      WaitForLog("holding", static_cast<std::size_t>(count));
      TakeLog();
      for (int i = 0; i < bound; ++i) ZorvixPublish(topic, i);
      EXPECT_EQ(Count(TakeLog(), "overflow"), 0u);
      for (int i = 0; i < 2; ++i) ZorvixPublish(topic, bound + i);
      EXPECT_EQ(Count(TakeLog(), "W: event queue overflow, size: " + std::to_string(bound)), 2u);
      HoldLog("");
    }
    if (count == 0) ZorvixSpinOnce();
    EXPECT_EQ(runs, bound) << "what waits at a stop is run";
    EXPECT_EQ(lost, 0);
  }
}

// The stop is called by a task, which is on a worker that it waits for. A Spin waits for the stop.
TEST_F(Bridge, StopGivesUpAfter200MillisecondsAndUntilThenNoSpinBegins) {
  auto& topic = Subscribed("t", BridgeType::Async, {Subscriber([](auto&) { ZorvixStopSpin(); })});
  const zorvix::Workers workers(2);
  WaitForLog("Spin loop once lock.", 2);
  ZorvixPublish(topic, 1);
  WaitForLog("elapsed");
  ZorvixSpin(0);
  double before = 0, elapsed = 0, value = 0;
  std::size_t polls = 0;
  bool timeout = false;
  for (const auto& line : TakeLog()) {
    if (std::sscanf(line.c_str(), "I: elapsed: %lfms", &value) == 1) {
      ++polls;
      before = std::exchange(elapsed, value);
    }
    timeout |= line == "W: StopSpin timeout.";
    EXPECT_TRUE(timeout || line != "I: Spin exit.");
  }
  EXPECT_GT(elapsed, 200);
  EXPECT_LE(before, 200);
  EXPECT_GT(polls, 5u);
  EXPECT_LE(polls, 202u) << "looks a millisecond apart";
}

TEST_F(Bridge, OneStopEndsAllSpins) {
  const zorvix::Workers first(1), second(2);
  WaitForLog("Spin loop once lock.", 3);
  ZorvixStopSpin();
  WaitForLog("Spin exit.", 2);
  EXPECT_THROW(ZorvixSpin(~0ul), std::length_error);
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

// Lines are written under locks, so a held line holds a lock.
TEST_F(Bridge, PollingAnEmptyQueueAndPublishingOneShotsWaitForNoLockOfOthers) {
  auto& topic = Subscribed("t", BridgeType::SignleAsync, {Subscriber([](auto&) {})});
  auto& service = Service("s", BridgeType::Sync);
  const auto server = Server([](auto&, auto&) {});
  ZorvixRegisterServer(service, server);
  HoldLog("callback is motified");
  std::thread replacing([&] { ZorvixRegisterServer(service, server); });
  WaitForLog("callback is motified");
  EXPECT_TRUE(ZorvixPublish(topic, 1));
  HoldLog("event queue size");
  replacing.join();
  std::thread running([] { EXPECT_TRUE(ZorvixRunOneceStep()); });
  WaitForLog("event queue size: 0");
  EXPECT_FALSE(ZorvixRunOneceStep());
  HoldLog("");
  running.join();
}

// Every operation from several threads at once. Queued types have endpoints of each thread's own,
// with one receiver each, so that the books can be balanced: what was queued has run or was dropped
// with its line. A service that is used as a topic loses its one-shot server.
TEST_F(Bridge, BooksBalanceWhenEverythingRunsAtOnce) {
  std::atomic<std::size_t> queued{0}, ran{0};
  // The message, or request, is whether it is queued.
  const auto subscriber = Subscriber([&](auto& message) { ran += std::any_cast<bool>(message); });
  const auto server = Server([&](auto& request, auto&) { ran += std::any_cast<bool>(request); });
  const auto use = [&](const std::string& name, BridgeModule module, BridgeType type) {
    const bool queues = type != BridgeType::Sync;
    Endpoint ends[4];
    for (auto& end : ends)
      end = std::make_shared<bridge::Control>(bridge::Control{name, module, type});
    ZorvixRegisterPublisher(ends[0]);
    ZorvixRegisterSubscriber(ends[1], subscriber);
    queued += ZorvixPublish(ends[0], queues) && queues;
    ZorvixUnregisterSubscriber(ends[1], Handle(subscriber));
    ZorvixUnregisterPublisher(ends[0]);
    ZorvixRegisterClient(ends[2]);
    ZorvixRegisterServer(ends[3], server);
    queued += queues && ZorvixCall(ends[2], [queues](auto& serve) {
                std::any response;
                serve(queues, response);
              });
    ZorvixUnregisterServer(ends[3]);
    ZorvixUnregisterClient(ends[2]);
  };
  const auto use_all = [&](const std::string& own) {
    for (int round = 0; round < 600; ++round) {
      for (const auto module : {BridgeModule::Topic, BridgeModule::Service}) {
        use("shared", module, BridgeType::Sync);
        use(own, module, BridgeType::Async);
        use(own, module, BridgeType::SignleAsync);
      }
      if (round % 16 == 0) ZorvixRunOneceStep();
    }
  };
  std::vector<std::future<void>> threads;
  for (const auto* name : {"a", "b", "c", "d"}) {
    threads.push_back(std::async(std::launch::async, use_all, name));
  }
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
