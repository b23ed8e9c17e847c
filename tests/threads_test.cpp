// What holds when several threads use the bridge, and how workers start, stop and end.
#include <algorithm>
#include <atomic>
#include <thread>

#include "bridge_test.h"

namespace {

TEST_F(Bridge, ExitDestroysQueuedTasksUnrun) {
  const auto end = [this] {
    auto& topic = Topic("t", BridgeType::Async);
    ZorvixRegisterSubscriber(topic, Subscriber([](auto&) { std::fputs("ran", stderr); }));
    const auto say = [](void*) { std::fputs("destroyed", stderr); };
    ZorvixPublish(topic, std::shared_ptr<void>(nullptr, say));
    std::exit(0);
  };
  EXPECT_EXIT(end(), testing::ExitedWithCode(0), testing::Eq("destroyed"));
}

TEST_F(Bridge, WorkerRunsWhatIsPostedAndLogsEachTurn) {
  auto& topic = Topic("t", BridgeType::Async);
  auto& service = Service("s", BridgeType::Async);
  std::vector<std::thread::id> workers;
  const auto run = [&] {
    workers.push_back(std::this_thread::get_id());
    EXPECT_TRUE(ZorvixIsSpin());
  };
  ZorvixRegisterSubscriber(topic, Subscriber([&](auto&) { run(); }));
  ZorvixRegisterServer(service, Server([&](auto&, auto&) { run(); }));
  ZorvixStopSpin();  // finds no worker, and does not keep the next one from running
  Spinning spinning([] { ZorvixSpin(1); });
  const auto caller = spinning.Id();
  WaitForLog("Spin loop once lock.");
  EXPECT_TRUE(ZorvixPublish(topic, 1));
  WaitForLog("Spin loop once lock.", 2);
  EXPECT_TRUE(ZorvixCall(service, [](auto& serve) {
    std::any response;
    serve(1, response);
  }));
  WaitForLog("Spin loop once lock.", 3);
  spinning.Stop();
  for (const auto& worker : workers) {
    EXPECT_NE(worker, std::this_thread::get_id());
    EXPECT_NE(worker, caller);
  }
  EXPECT_FALSE(ZorvixIsSpin());
  auto log = TakeLog();  // less the polls, if the worker did not leave before the first
  log.erase(std::remove_if(log.begin(), log.end(),
                           [](auto& line) { return line.rfind("I: elapsed: ", 0) == 0; }),
            log.end());
  const Lines turn = {"I: Spin loop once lock.", "I: Spin loop once.", "I: event queue size: 0"};
  Lines expected = turn;
  expected.insert(expected.end(), turn.begin(), turn.end());
  expected.insert(expected.end(), {turn[0], turn[1], "I: Spin exit."});
  EXPECT_EQ(log, expected);
}

// Each of the two tasks waits for the other to run.
TEST_F(Bridge, PublicationWakesAllWorkers) {
  auto& topic = Topic("t", BridgeType::Async);
  Latch both(2);
  for (int i = 0; i < 2; ++i) {
    ZorvixRegisterSubscriber(topic, Subscriber([&](auto&) { both.Meet(); }));
  }
  Spinning spinning([] { ZorvixSpin(2); });
  WaitForLog("Spin loop once lock.", 2);
  ZorvixPublish(topic, 1);
  both.Wait();
}

TEST_F(Bridge, SpinWithoutWorkersOnlyLogs) {
  ZorvixSpin(0);
  ZorvixStopSpin();
  EXPECT_EQ(TakeLog(), Lines{"I: Spin exit."});
  EXPECT_THROW(ZorvixSpin(~0ul), std::length_error);
  EXPECT_EQ(TakeLog(), Lines{});
}

TEST_F(Bridge, BoundGrowsWithTheWorkers) {
  for (const unsigned workers : {1u, 3u}) {
    SCOPED_TRACE(workers);
    const unsigned bound = 100 * workers;
    auto& holding = Topic("hold" + std::to_string(workers), BridgeType::Async);
    auto& endpoint = Topic("t" + std::to_string(workers), BridgeType::Async);
    Latch entered(workers), release;
    std::atomic<unsigned> runs{0};
    ZorvixRegisterSubscriber(holding, Subscriber([&](auto&) {
                               entered.CountDown();
                               release.Wait();
                             }));
    ZorvixRegisterSubscriber(endpoint, Subscriber([&](auto&) { ++runs; }));
    Spinning spinning([=] { ZorvixSpin(workers); });
    for (unsigned i = 0; i < workers; ++i) ZorvixPublish(holding, 1);
    entered.Wait();
    TakeLog();
    for (unsigned i = 0; i < bound; ++i) ZorvixPublish(endpoint, 1);
    EXPECT_EQ(TakeLog(), Lines{});
    ZorvixPublish(endpoint, 1);
    EXPECT_EQ(TakeLog(), Lines{"W: event queue overflow, size: " + std::to_string(bound)});
    release.CountDown();
    spinning.Stop();
    EXPECT_EQ(runs, bound) << "what waits at a stop is run";
  }
}

// The stop is called by a task, which is on a worker that it waits for. A Spin waits for the stop.
TEST_F(Bridge, StopGivesUpAfter200MillisecondsAndUntilThenNoSpinBegins) {
  auto& endpoint = Topic("t", BridgeType::Async);
  ZorvixRegisterSubscriber(endpoint, Subscriber([](auto&) { ZorvixStopSpin(); }));
  Spinning spinning([] { ZorvixSpin(2); });
  WaitForLog("Spin loop once lock.", 2);
  ZorvixPublish(endpoint, 1);
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
  Spinning first([] { ZorvixSpin(1); }), second([] { ZorvixSpin(2); });
  WaitForLog("Spin loop once lock.", 3);
  ZorvixStopSpin();
  WaitForLog("Spin exit.", 2);
}

// A stop meets workers at any point of their loop: none may miss it, and whatever was posted before
// it must have run when Spin returns. Polling brings the stop close behind a worker's first line.
TEST_F(Bridge, StopAtAnyMomentLosesNeitherWorkersNorTasks) {
  auto& endpoint = Topic("t", BridgeType::Async);
  std::atomic<int> runs{0};
  ZorvixRegisterSubscriber(endpoint, Subscriber([&](auto&) { ++runs; }));
  for (int round = 0; round < 500; ++round) {
    runs = 0;
    TakeLog();
    const int posts = round % 4;
    Spinning spinning([] { ZorvixSpin(1); });
    while (LogCount() == 0) {
    }
    for (int i = 0; i < posts; ++i) ZorvixPublish(endpoint, 1);
    ZorvixStopSpin();
    spinning.Stop();
    ASSERT_EQ(Count(TakeLog(), "StopSpin timeout."), 0u);
    ASSERT_EQ(runs, posts);
  }
}

// Lines are written under locks, so a held line holds a lock.
TEST_F(Bridge, PollingAnEmptyQueueAndPublishingOneShotsWaitForNoLockOfOthers) {
  auto& topic = Topic("t", BridgeType::SignleAsync);
  ZorvixRegisterSubscriber(topic, Subscriber([](auto&) {}));
  auto& service = Service("s", BridgeType::Sync);
  const auto server = Server([](auto&, auto&) {});
  ZorvixRegisterServer(service, server);
  HoldLog("callback is motified");
  std::thread replacing([&] { ZorvixRegisterServer(service, server); });
  WaitForLog("callback is motified");
  EXPECT_TRUE(ZorvixPublish(topic, 1));
  HoldLog("");
  replacing.join();
  HoldLog("event queue size");
  std::thread running([] { EXPECT_TRUE(ZorvixRunOneceStep()); });
  WaitForLog("event queue size: 0");
  EXPECT_FALSE(ZorvixRunOneceStep());
  HoldLog("");
  running.join();
}

// Every operation from several threads at once. Queued types have endpoints of each thread's own,
// with one receiver each, so that the books can be balanced: what was queued has run, was dropped
// with its line, or is still waiting.
TEST_F(Bridge, BooksBalanceWhenEverythingRunsAtOnce) {
  constexpr int kThreads = 4, kRounds = 300;
  std::atomic<std::size_t> queued{0}, ran{0};
  // The message, or request, is whether it is queued.
  const auto subscriber = Subscriber([&](auto& message) { ran += std::any_cast<bool>(message); });
  const auto server = Server([&](auto& request, auto&) { ran += std::any_cast<bool>(request); });
  Latch start(kThreads);
  const auto use = [&](int number) {
    start.Meet();
    for (int round = 0; round < kRounds; ++round) {
      for (const auto type : {BridgeType::Sync, BridgeType::Async, BridgeType::SignleAsync}) {
        const bool queues = type != BridgeType::Sync;
        const auto name = queues ? "own" + std::to_string(number) : "shared";
        for (const auto module : {BridgeModule::Topic, BridgeModule::Service}) {
          Endpoint ends[4];
          for (auto& end : ends) {
            end = std::make_shared<bridge::Control>(bridge::Control{name, module, type});
          }
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
        }
      }
      if (round % 16 == 0) ZorvixRunOneceStep();
      if (round % 64 == number) ZorvixSpinOnce();
      if (round % 128 == number) ZorvixStopSpin();
    }
  };
  std::atomic<bool> done{false};
  Spinning spinning([&] {
    while (!done) ZorvixSpin(2);
  });
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int number = 0; number < kThreads; ++number) threads.emplace_back(use, number);
  for (auto& thread : threads) thread.join();
  done = true;
  spinning.Stop();
  ZorvixSpinOnce();
  const auto log = TakeLog();
  EXPECT_EQ(queued, 8u * kThreads * kRounds);
  EXPECT_EQ(ran + Count(log, "event queue overflow"), queued);
  EXPECT_EQ(Count(log, "event queue size"), ran);
}

}  // namespace
