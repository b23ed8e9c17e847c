// What holds when several threads use the bridge, and how workers start, stop and end.
#include <algorithm>
#include <atomic>
#include <thread>

#include "bridge_test.h"

namespace {

std::size_t Count(const Lines& log, const std::string& text) {
  return static_cast<std::size_t>(std::count_if(log.begin(), log.end(), [&](const auto& line) {
    return line.find(text) != std::string::npos;
  }));
}

// A subscriber that holds the worker that runs it until it is let go.
struct Holder {
  Latch entered, release;
  bridge::SubscriberCallback callback = Subscriber([this](auto&) {
    entered.CountDown();
    release.Wait();
  });
  explicit Holder(int workers = 1) : entered(workers) {}
};

TEST(Instance, IsBuiltOnceByThreadsThatMeetAtTheFirstUse) {
  Latch start(4);
  Zorvix* seen[4] = {};
  std::vector<std::thread> threads;
  for (auto& instance : seen) {
    threads.emplace_back([&] {
      start.CountDown();
      start.Wait();
      EXPECT_FALSE(ZorvixIsSpin());
      instance = &TheBridge();
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(std::count(std::begin(seen), std::end(seen), &TheBridge()), 4);
}

// Registered before the bridge is built, so it runs after the bridge has been destroyed.
bool report_log_at_exit = false;
const int registered = std::atexit([] {
  if (report_log_at_exit) std::fprintf(stderr, " %zu lines", TakeLog().size());
});

Endpoint QueueOne(std::any message, const bridge::SubscriberCallback& callback) {
  Endpoint endpoint =
      std::make_shared<bridge::Control>(bridge::Control{"t", {}, BridgeType::Async});
  ZorvixRegisterSubscriber(endpoint, callback);
  ZorvixPublish(endpoint, std::move(message));
  return endpoint;
}

TEST(ProcessDeathTest, ExitDestroysQueuedTasksUnrunAndInSilence) {
  struct Noisy {
    ~Noisy() { std::fputs(" destroyed", stderr); }
  };
  const auto end = [] {
    const auto endpoint =
        QueueOne(std::make_shared<Noisy>(), Subscriber([](auto&) { std::fputs(" ran", stderr); }));
    report_log_at_exit = true;
    std::fputs("exit", stderr);
    std::exit(0);
  };
  ASSERT_EQ(registered, 0);
  EXPECT_EXIT(end(), testing::ExitedWithCode(0), testing::Eq("exit destroyed 0 lines"));
}

TEST(ProcessDeathTest, EndsByWhatIsNoStandardExceptionOnAWorker) {
  const auto end = [] {
    const auto endpoint = QueueOne(1, Subscriber([](auto&) { throw 1; }));
    ZorvixSpin(1);
  };
  EXPECT_DEATH(end(), "");
}

TEST_P(Bridge, WorkerRunsWhatIsPostedAndLogsEachTurn) {
  auto& endpoint = Topic("t", BridgeType::Async);
  Latch ran(1);
  std::thread::id worker;
  api.register_subscriber(endpoint, Subscriber([&](auto&) {
                            worker = std::this_thread::get_id();
                            EXPECT_TRUE(ZorvixIsSpin());
                            ran.CountDown();
                          }));
  api.stop_spin();  // finds no worker, and does not keep the next one from running
  std::thread spin([&] { api.spin(1); });
  const auto spinning = spin.get_id();
  WaitForLog("Spin loop once lock.");
  EXPECT_TRUE(api.publish(endpoint, 1));
  ran.Wait();
  WaitForLog("Spin loop once lock.", 2);
  api.stop_spin();
  spin.join();
  EXPECT_NE(worker, std::this_thread::get_id());
  EXPECT_NE(worker, spinning);
  EXPECT_FALSE(ZorvixIsSpin());
  auto log = TakeLog();  // less the polls, if the worker did not leave before the first
  log.erase(std::remove_if(log.begin(), log.end(),
                           [](auto& line) { return line.rfind("I: elapsed: ", 0) == 0; }),
            log.end());
  EXPECT_EQ(log, (Lines{"I: Spin loop once lock.", "I: Spin loop once.", "I: event queue size: 0",
                        "I: Spin loop once lock.", "I: Spin loop once.", "I: Spin exit."}));
}

TEST_P(Bridge, SpinWithoutWorkersOnlyLogs) {
  api.spin(0);
  api.stop_spin();
  EXPECT_EQ(TakeLog(), Lines{"I: Spin exit."});
  EXPECT_THROW(api.spin(~0ul), std::length_error);
  EXPECT_EQ(TakeLog(), Lines{});
}

TEST_P(Bridge, BoundGrowsWithTheWorkers) {
  const struct {
    unsigned long workers;
    int bound;
  } rows[] = {{1, 100}, {3, 300}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.workers);
    Holder holder(static_cast<int>(row.workers));
    auto& holding = Topic("hold" + std::to_string(row.bound), BridgeType::Async);
    auto& endpoint = Topic("t" + std::to_string(row.bound), BridgeType::Async);
    std::atomic<int> runs{0};
    api.register_subscriber(holding, holder.callback);
    api.register_subscriber(endpoint, Subscriber([&](auto&) { ++runs; }));
    std::thread spin([&] { api.spin(row.workers); });
    for (unsigned long i = 0; i < row.workers; ++i) api.publish(holding, 1);
    holder.entered.Wait();
    TakeLog();
    for (int i = 0; i < row.bound; ++i) api.publish(endpoint, i);
    EXPECT_EQ(TakeLog(), Lines{});
    api.publish(endpoint, 0);
    EXPECT_EQ(TakeLog(), Lines{"W: event queue overflow, size: " + std::to_string(row.bound)});
    holder.release.CountDown();
    api.stop_spin();
    spin.join();
    EXPECT_EQ(runs, row.bound) << "what waits at a stop is run";
  }
}

TEST_P(Bridge, StopGivesUpOnABusyWorkerAfter200Milliseconds) {
  auto& endpoint = Topic("t", BridgeType::Async);
  Holder holder;
  api.register_subscriber(endpoint, holder.callback);
  std::atomic<bool> left{false};
  std::thread spin([&] {
    api.spin(2);
    left = true;
  });
  api.publish(endpoint, 1);
  holder.entered.Wait();
  WaitForLog("Spin loop once lock.", 2);
  TakeLog();
  api.stop_spin();
  EXPECT_FALSE(left);
  EXPECT_TRUE(ZorvixIsSpin());
  const auto log = TakeLog();
  EXPECT_EQ(log.back(), "W: StopSpin timeout.");
  double elapsed = -1, before = -1;
  for (const auto& line : log) {
    before = elapsed > 200 ? before : elapsed;
    std::sscanf(line.c_str(), "I: elapsed: %lfms", &elapsed);
  }
  EXPECT_GE(elapsed, 200);
  EXPECT_LE(before, 200);
  EXPECT_GT(Count(log, "elapsed"), 5u);
  holder.release.CountDown();
  spin.join();
  EXPECT_EQ(TakeLog(), Lines{"I: Spin exit."});
}

TEST_P(Bridge, StopFromAWorkersTaskTimesOutAndStops) {
  auto& endpoint = Topic("t", BridgeType::Async);
  api.register_subscriber(endpoint, Subscriber([&](auto&) { api.stop_spin(); }));
  std::thread spin([&] { api.spin(2); });
  WaitForLog("Spin loop once lock.");
  api.publish(endpoint, 1);
  spin.join();
  EXPECT_EQ(Count(TakeLog(), "StopSpin timeout."), 1u);
}

TEST_P(Bridge, OneStopEndsAllSpins) {
  std::thread first([&] { api.spin(1); }), second([&] { api.spin(2); });
  WaitForLog("Spin loop once lock.", 3);
  api.stop_spin();
  first.join();
  second.join();
  EXPECT_EQ(Count(TakeLog(), "Spin exit."), 2u);
}

// A stop meets workers at any point of their loop: none may miss it, and whatever was posted before
// it must have run when Spin returns. Polling brings the stop close behind a worker's first line.
TEST_P(Bridge, StopAtAnyMomentLosesNeitherWorkersNorTasks) {
  auto& endpoint = Topic("t", BridgeType::Async);
  std::atomic<int> runs{0};
  api.register_subscriber(endpoint, Subscriber([&](auto&) { ++runs; }));
  for (int round = 0; round < 500; ++round) {
    runs = 0;
    const int posts = round % 4;
    std::thread spin([&] { api.spin(1); });
    while (LogCount() == 0) {
    }
    for (int i = 0; i < posts; ++i) api.publish(endpoint, 1);
    api.stop_spin();
    const bool missed = Count(TakeLog(), "StopSpin timeout.") != 0;
    if (missed) api.publish(endpoint, 1);  // wakes the worker
    spin.join();
    ASSERT_FALSE(missed);
    ASSERT_EQ(runs, posts);
    TakeLog();
  }
}

// Every operation from several threads at once. Queued types have endpoints of each thread's own,
// with one receiver each, so that the books can be balanced: what was queued has run, was dropped
// with its line, or is still waiting. A service that is used as a topic has its one-shot server
// removed.
TEST_P(Bridge, BooksBalanceWhenEverythingRunsAtOnce) {
  constexpr int kThreads = 4, kRounds = 300;
  std::atomic<std::size_t> queued{0}, ran{0};
  // The message, or request, is whether it is queued.
  const auto subscriber = Subscriber([&](auto& message) { ran += std::any_cast<bool>(message); });
  const auto server = Server([&](auto& request, auto&) { ran += std::any_cast<bool>(request); });
  Latch start(kThreads);
  const auto use = [&](int number) {
    start.CountDown();
    start.Wait();
    for (int round = 0; round < kRounds; ++round) {
      for (const auto type : {BridgeType::Sync, BridgeType::Async, BridgeType::SignleAsync}) {
        const bool queues = type != BridgeType::Sync;
        const auto name = queues ? "own" + std::to_string(number) : "shared";
        for (const auto module : {BridgeModule::Topic, BridgeModule::Service}) {
          Endpoint ends[4];
          for (auto& end : ends) {
            end = std::make_shared<bridge::Control>(bridge::Control{name, module, type});
          }
          api.register_publisher(ends[0]);
          api.register_subscriber(ends[1], subscriber);
          queued += api.publish(ends[0], queues) && queues;
          api.unregister_subscriber(ends[1], Handle(subscriber));
          api.unregister_publisher(ends[0]);
          api.register_client(ends[2]);
          api.register_server(ends[3], server);
          queued += queues && api.call(ends[2], [queues](auto& function) {
            std::any response;
            function(queues, response);
          });
          api.unregister_server(ends[3]);
          api.unregister_client(ends[2]);
        }
      }
      if (round % 16 == 0) api.run_onece_step();
      if (round % 64 == number) api.spin_once();
      if (round % 128 == number) api.stop_spin();
    }
  };
  std::atomic<bool> done{false}, left{false};
  std::thread spin([&] {
    while (!done) api.spin(2);
    left = true;
  });
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int number = 0; number < kThreads; ++number) threads.emplace_back(use, number);
  for (auto& thread : threads) thread.join();
  done = true;
  while (!left) api.stop_spin();
  spin.join();
  api.spin_once();
  const auto log = TakeLog();
  EXPECT_EQ(queued, 8u * kThreads * kRounds);
  EXPECT_EQ(ran + Count(log, "event queue overflow"), queued);
  EXPECT_EQ(Count(log, "event queue size"), ran);
}

}  // namespace
