// What holds when several threads use the bridge, and how workers start, stop and end.
#include <algorithm>

#include "bridge_test.h"

namespace {

TEST_F(Bridge, WorkerRunsWhatIsPostedAndLogsEachTurn) {
  const auto here = std::this_thread::get_id();
  auto& service = Service("s", BridgeType::Async, Server([=](auto&, auto&) {
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
  TakeLog();
  const Lines turn{"I: Spin loop once.", "I: event queue size: 0", "I: Spin loop once lock."};
  const Lines long_turn{turn[0], turn[1], "I: event queue size: 1", turn[1], turn[2]};
  for (int round = 0; round < 20; ++round) {  // most of which find the worker asleep
    EXPECT_TRUE(round == 10 ? ZorvixPublish(topic, 1) : ZorvixCall(service, Request));
    WaitForLog(turn[2]);
    EXPECT_EQ(TakeLog(), round == 10 ? long_turn : turn);
  }
  ZorvixStopSpin();
  spin.join();
  EXPECT_FALSE(ZorvixIsSpin());
  EXPECT_EQ(Count(TakeLog(), "I: Spin "), 2u) << "the rest of the turn, and the end";
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
  auto& topic = Subscribed("t", BridgeType::SignleAsync, {log, log, log, log});
  auto& sync_topic = Subscribed("t", BridgeType::Sync, {log});
  auto& service = Service("s", BridgeType::Async, serve);
  auto& sync_service = Service("s", BridgeType::Sync, serve);
  const zorvix::Workers first(1), second(5);
  WaitForLog("Spin loop once lock.", 6);
  HoldLog("runs");
  ZorvixPublish(topic, 1);
  WaitForLog("runs", 4);
  std::vector<std::future<bool>> threads;
  for (int i = 0; i < 2; ++i) {
    ZorvixCall(service, Request);
    threads.push_back(std::async(std::launch::async, [&] { return ZorvixPublish(sync_topic, 1); }));
    threads.push_back(std::async(std::launch::async, ZorvixCall, sync_service, Request));
  }
  WaitForLog("runs", 10);
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
    HoldLog("event queue size: 0");  // which is logged under the lock of the queue
    WaitForLog("event queue size: 0");
    EXPECT_FALSE(ZorvixRunOneceStep()) << "looks at an empty queue without its lock";
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
  const auto end = std::find(log.begin(), log.end(), "W: StopSpin timeout.");
  ASSERT_GT(Count(log, "elapsed"), 5u);
  EXPECT_LE(Count(log, "elapsed"), 202u) << "looks a millisecond apart";
  EXPECT_GT(std::stod(end[-1].substr(12)), 200);
  EXPECT_LE(std::stod(end[-2].substr(12)), 200);
}

// Polling brings the stop close behind a worker's first line; without, it is there before.
TEST_F(Bridge, StopAtAnyMomentLosesNeitherWorkersNorTasks) {
  std::atomic<int> runs{0};
  auto& topic = Subscribed("t", BridgeType::Async, {Subscriber([&](auto&) { ++runs; })});
  for (int round = 0; round < 600; ++round) {
    {
      const zorvix::Workers workers(1);
      while (round % 8 != 0 && TakeLog().empty()) continue;
      for (int i = 0; i < round % 4; ++i) ZorvixPublish(topic, 1);
      ZorvixStopSpin();
    }
    ASSERT_EQ(Count(TakeLog(), "StopSpin timeout."), 0u);
    ASSERT_EQ(runs.exchange(0), round % 4);
  }
}

// Sync endpoints are shared by all threads. The others are each thread's own, with one receiver, so
// that what was queued has run or was dropped with its line.
TEST_F(Bridge, BooksBalanceWhenEverythingRunsAtOnce) {
  std::atomic<std::size_t> queued{0}, ran{0};
  const std::vector crowd(500, Subscriber([](auto&) {}));  // makes changes of its list take longer
  Subscribed("shared", BridgeType::Sync, crowd);
  const auto use_all = [&](const std::string& own) {
    const auto count = [&ran, own](const std::any& from, auto&...) {
      ran += std::any_cast<std::string>(from) == own;
    };
    const auto subscriber = Subscriber(count);
    const auto server = Server(count);
    for (int round = 0; round < 3600; ++round) {
      const BridgeType type{round % 3};
      const bool queues = type != BridgeType::Sync;
      Endpoint ends[4];
      for (auto& end : ends)
        end = MakeControl(queues ? own : "shared", BridgeModule{round / 3 % 2}, type);
      ZorvixRegisterPublisher(ends[0]);
      ZorvixRegisterSubscriber(ends[1], subscriber);
      queued += ZorvixPublish(ends[0], own) && queues;
      ZorvixUnregisterSubscriber(ends[1], Handle(subscriber));
      ZorvixUnregisterPublisher(ends[0]);
      ZorvixRegisterClient(ends[2]);
      ZorvixRegisterServer(ends[3], server);
      queued += queues && ZorvixCall(ends[2], [own](auto& serve) {
                  std::any response;
                  serve(own, response);
                });
      ZorvixUnregisterServer(ends[3]);
      ZorvixUnregisterClient(ends[2]);
      if (round % 100 == 0) ZorvixRunOneceStep();
    }
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
  const auto run_from_queue = Count(log, "event queue size");
  EXPECT_EQ(queued, 4ul * 600 * 8);
  EXPECT_EQ(run_from_queue + Count(log, "event queue overflow"), queued);
  EXPECT_EQ(ran, run_from_queue + 4ul * 1200);
}

}  // namespace
