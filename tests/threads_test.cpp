// What the bridge promises when several threads use it, and how workers start, stop and end.
#include "threads.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "bridge_test.h"

namespace {

using std::chrono::milliseconds;

const zorvix::Topic<int> kQueued{"queued"};
const zorvix::Topic<int, BridgeType::Async> kAsync{"async"};
const auto log_running = Subscriber([](auto&) { Log("running"); });
const auto serve_running = Server([](auto&, auto&) { Log("running"); });

using Threads = Bridge;

TEST_F(Threads, SleepingWorkerWakesAndDrainsTheQueue) {
  auto& other = Subscribed("other", BridgeType::Async, {Subscriber([](auto&) {})});
  auto& topic = Subscribed("t", BridgeType::Async, {Subscriber([&](auto&) {
                             for (int i = 0; i < 2; ++i) ZorvixPublish(other, 1);
                           })});
  const zorvix::Workers workers(1);
  WaitForLog("Spin loop once lock.");
  for (int round = 0; round < 20; ++round) {
    TakeLog();

    ZorvixPublish(topic, 1);

    WaitForLog("Spin loop once lock.");
    EXPECT_EQ(TakeLog(),
              (Lines{"I: Spin loop once.", "I: event queue size: 0", "I: event queue size: 1",
                     "I: event queue size: 0", "I: Spin loop once lock."}));
  }
}

// The publication needs two workers, which sleep.
TEST_F(Threads, CallbacksAreInvokedByManyThreadsAtTheSameTime) {
  auto& topic = Subscribed("t", BridgeType::Async, {log_running, log_running});
  auto& service = Service("s", BridgeType::Async, serve_running);
  auto& sync_topic = Subscribed("t", BridgeType::Sync, {log_running});
  auto& sync_service = Service("s", BridgeType::Sync, serve_running);
  const zorvix::Workers workers(4);
  WaitForLog("Spin loop once lock.", 4);
  HoldLog("running");

  std::vector<std::future<bool>> threads;
  for (int i = 0; i < 2; ++i) {
    ZorvixCall(service, Request);
    threads.push_back(InBackground([&] { return ZorvixPublish(sync_topic, 1); }));
    threads.push_back(InBackground(ZorvixCall, sync_service, Request));
  }
  WaitForLog("running", 6);
  ZorvixPublish(topic, 1);

  WaitForLog("running", 8);
  HoldLog("");
}

// Their tasks do not get into the queue, since a thread that logs an overflow is held in it.
TEST_F(Threads, OneShotsAreUsedUpBeforeTheyAreQueued) {
  auto& topic = Subscribed("t", BridgeType::SignleAsync, {log_running});
  auto& service = Service("s", BridgeType::SignleAsync, serve_running);
  const std::function<void()> rows[] = {[&] { ZorvixPublish(topic, 1); },
                                        [&] { ZorvixCall(service, Request); }};
  auto& other = Subscribed("other", BridgeType::Async, {Subscriber([](auto&) {})});
  for (int i = 0; i < 100; ++i) ZorvixPublish(other, 1);
  for (const auto& use : rows) {
    TakeLog();
    HoldLog("overflow");
    const auto first = InBackground(use);
    WaitForLog("overflow");

    const auto second = InBackground(use);

    WaitForLog("failed, no s");
    HoldLog("");
  }
  ZorvixSpinOnce();
}

TEST_F(Threads, QueueHolds100TasksForEachWorker) {
  auto& topic = Subscribed("t", BridgeType::Async, {log_running});
  for (const std::size_t count : {0u, 3u, 1u}) {
    TakeLog();
    std::optional<zorvix::Workers> workers;
    if (count != 0) workers.emplace(count);
    HoldLog("running");
    for (std::size_t i = 0; i < count; ++i) ZorvixPublish(topic, 1);
    WaitForLog("running", count);
    TakeLog();

    const std::size_t bound = std::max<std::size_t>(100, 100 * count);
    for (std::size_t i = 0; i < 2 * bound; ++i) ZorvixPublish(topic, 1);

    EXPECT_EQ(TakeLog(), Lines(bound, "W: event queue overflow, size: " + std::to_string(bound)));
    HoldLog("");
    ZorvixSpinOnce();
  }
}

TEST_F(Threads, ThereMustBeAWorker) {
  EXPECT_THROW(zorvix::Workers(0).Stop(), std::invalid_argument);

  EXPECT_EQ(TakeLog(), Lines());
}

TEST_F(Threads, EmptyQueueIsPolledWithoutItsLock) {
  auto& topic = Subscribed("t", BridgeType::Async, {log_running});
  HoldLog("event queue size: 0");  // which is logged with the queue locked
  ZorvixPublish(topic, 1);
  const auto drain = InBackground(ZorvixSpinOnce);
  WaitForLog("event queue size: 0");

  EXPECT_FALSE(ZorvixRunOneceStep());

  HoldLog("");
}

// The stop is called by a task, so it waits for its own thread.
TEST_F(Threads, StopGivesUpAfter200MillisecondsAndSpinWaitsForIt) {
  auto& topic = Subscribed("t", BridgeType::Async, {Subscriber([](auto&) { ZorvixStopSpin(); })});
  const zorvix::Workers workers(1);
  ZorvixPublish(topic, 1);
  WaitForLog("elapsed");

  ZorvixSpin(0);

  const auto log = TakeLog();
  const auto timeout = std::find(log.begin(), log.end(), "W: StopSpin timeout.");
  ASSERT_NE(timeout, log.end()) << "the Spin did not wait";
  ASSERT_GT(Count(log, "I: elapsed: "), 5u);
  EXPECT_LE(Count(log, "I: elapsed: "), 202u) << "polls a millisecond apart";
  EXPECT_GT(std::stod(timeout[-1].substr(12)), 200);
  EXPECT_LE(std::stod(timeout[-2].substr(12)), 200);
}

TEST_F(Threads, StopThatHasGivenUpStillEndsTheWorkers) {
  auto& topic = Subscribed("t", BridgeType::Async, {Subscriber([](auto&) { ZorvixStopSpin(); })});
  auto spin = InBackground(ZorvixSpin, 1);

  ZorvixPublish(topic, 1);

  WaitForLog("StopSpin timeout.");
  WaitForLog("Spin exit.");
}

// Whether the stop comes between a look at the flag and the wait is a matter of luck, hence the
// rounds. Whether a task is posted just before a worker's last drain is, too, and no test sees it.
TEST_F(Threads, StopEndsAWorkerWhateverItDoes) {
  for (int round = 0; round < 1000; ++round) {
    TakeLog();
    auto spin = InBackground(ZorvixSpin, 1);
    EXPECT_TRUE(ComesTrue(ZorvixIsSpin));
    std::atomic<int> delay{round % 100};
    while (delay > 0) --delay;

    ZorvixStopSpin();

    WaitForLog("Spin exit.");
  }
}

TEST_F(Threads, WorkersAreLeftToOtherOwnersUntilTheLastOneIsDestroyed) {
  auto& topic = Subscribed("t", BridgeType::Async, {log_running});
  std::optional<zorvix::Workers> first(1);
  std::optional<zorvix::Workers> last(1);
  WaitForLog("Spin loop once lock.", 2);

  EXPECT_TRUE(first->Stop(milliseconds(0)));
  first.reset();

  HoldLog("running");
  for (int i = 0; i < 2; ++i) ZorvixPublish(topic, 1);
  WaitForLog("running", 2);
  HoldLog("");
  last.reset();
  EXPECT_FALSE(ZorvixIsSpin());
  EXPECT_EQ(Count(TakeLog(), "Spin exit."), 2u);
}

TEST_F(Threads, WorkersThatWaitForATaskSaySoAndNameNoCallableThatHasReturned) {
  const zorvix::Subscriber returns(kAsync, [](int) {});
  auto& topic = Subscribed("t", BridgeType::Async, {log_running});
  std::optional<zorvix::Workers> workers(1);
  HoldLog("running");
  zorvix::Publisher(kAsync).Publish(0);
  ZorvixPublish(topic, 1);
  WaitForLog("running");

  const auto stop = InBackground([&] { workers.reset(); });

  WaitForLog("workers wait for a task to return");
  EXPECT_EQ(Count(TakeLog(), "workers wait for a callable"), 0u);
  HoldLog("");
}

// Has two workers in callables of handles, one with and one without a strand.
class StoppedWorkers : public Bridge {
 protected:
  void SetUp() override {
    Bridge::SetUp();
    HoldLog("running");
    workers_.emplace(2);
    zorvix::Publisher(kAsync).Publish(0);
    for (int i = 0; i < 3; ++i) zorvix::Publisher(kQueued).Publish(i);
    WaitForLog("running", 2);
    EXPECT_FALSE(workers_->Stop(milliseconds(0)));
    EXPECT_EQ(Count(TakeLog(), "StopSpin timeout."), 0u) << "Stop has waited for StopSpin";
    zorvix::Publisher(kQueued).Publish(3);
  }

  std::vector<int> received_;
  std::optional<zorvix::Workers> workers_;

 private:
  const zorvix::Subscriber<int> queued_{kQueued,
                                        [this](int number) {
                                          received_.push_back(number);
                                          if (number == 0) Log("running");
                                        },
                                        zorvix::Delivery::Queued};
  const zorvix::Subscriber<int, BridgeType::Async> async_{kAsync, [](int) { Log("running"); }};
};

TEST_F(StoppedWorkers, LogOnceASecondForWhichCallablesTheyWait) {
  EXPECT_FALSE(workers_->Stop(milliseconds(2500)));

  const auto log = TakeLog();
  const std::string text = "workers wait for a callable to return, kind: Subscriber, name: ";
  EXPECT_EQ(Count(log, text + "queued, module: zorvix_test"), 2u);
  EXPECT_EQ(Count(log, text + "async, module: zorvix_test"), 2u);
  EXPECT_LE(Count(log, "StopSpin timeout."), 2u);
  HoldLog("");
}

// Returns how many threads of the process traces and debuggers show under that name.
long CountThreads(const std::string& name) {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return std::count_if(begin(threads), end(threads), [&name](const auto& thread) {
    std::ifstream file(thread.path() / "comm");
    std::string line;
    return std::getline(file, line) && line == name;
  });
}

TEST_F(StoppedWorkers, HaveNamesAndSoHasTheThreadThatStopsThem) {
  EXPECT_TRUE(ComesTrue([] { return CountThreads("zorvix stopper") == 1; }));
  EXPECT_EQ(CountThreads("zorvix worker"), 3) << "two, and the thread that waits for them";
  HoldLog("");
}

TEST_F(StoppedWorkers, BeginNoQueuedCallableAndLeaveTheRestInOrder) {
  HoldLog("");
  workers_->Stop();

  EXPECT_EQ(received_, std::vector{0});
  ZorvixSpinOnce();
  EXPECT_EQ(received_, (std::vector{0, 1, 2, 3}));
}

TEST_F(StoppedWorkers, GoOnWithLaterWorkers) {
  auto& topic = Subscribed("t", BridgeType::Async, {Subscriber([](auto&) { Log("by others"); })});

  WaitForLog("elapsed");  // StopSpin is in progress
  zorvix::Workers later(1);
  EXPECT_TRUE(workers_->Stop(zorvix::Timeout::Forever())) << "they are left to the later ones";
  ZorvixPublish(topic, 1);
  WaitForLog("by others");
  HoldLog("");

  later.Stop();
  EXPECT_EQ(received_, (std::vector{0, 1, 2, 3}));
}

// Uses each kind of endpoint as publisher, subscriber, client and server. Sync endpoints are shared
// with other threads, which replace each other's servers; all others are this thread's own.
// Returns how many messages and calls were queued.
std::size_t UseAllEndpoints(const std::string& thread, std::atomic<std::size_t>& received) {
  const auto subscriber = Subscriber([&received, thread](const std::any& message) {
    if (std::any_cast<std::string>(message) == thread) ++received;
  });
  const auto server = Server([&received](auto&, auto&) { ++received; });
  std::size_t queued = 0;
  for (int round = 0; round < 3600; ++round) {
    const BridgeType type{round % 3};
    const bool queues = type != BridgeType::Sync;
    const std::string name = queues ? thread : "shared";
    auto publisher = MakeControl(name, BridgeModule::Topic, type);
    auto topic = MakeControl(name, BridgeModule::Topic, type);
    ZorvixRegisterPublisher(publisher);
    ZorvixRegisterSubscriber(topic, subscriber);
    if (ZorvixPublish(publisher, thread) && queues) ++queued;
    ZorvixUnregisterSubscriber(topic, Handle(subscriber));
    ZorvixUnregisterPublisher(publisher);

    auto client = MakeControl(name, BridgeModule::Service, type);
    auto service = MakeControl(name, BridgeModule::Service, type);
    ZorvixRegisterClient(client);
    ZorvixRegisterServer(service, server);
    if (queues && ZorvixCall(client, Request)) ++queued;
    ZorvixUnregisterServer(service);
    ZorvixUnregisterClient(client);
    if (round % 100 == 0) ZorvixRunOneceStep();
  }
  return queued;
}

TEST_F(Threads, EachMessageAndCallIsReceivedOrDroppedWhileOthersUseTheBridge) {
  std::atomic<std::size_t> queued{0};
  std::atomic<std::size_t> received{0};
  // Many subscribers, so that changing their list takes longer.
  Subscribed("shared", BridgeType::Sync, std::vector(500, Subscriber([](auto&) {})));

  std::vector<std::future<void>> threads;
  for (const char* thread : {"0", "1", "2", "3"}) {
    threads.push_back(InBackground([&, thread] { queued += UseAllEndpoints(thread, received); }));
  }
  for (int i = 0; i < 10; ++i) const zorvix::Workers workers(2);
  for (auto& thread : threads) thread.get();
  ZorvixSpinOnce();

  const auto log = TakeLog();
  const auto run = Count(log, "event queue size");
  EXPECT_EQ(queued, std::size_t{4} * 2400 * 2);
  EXPECT_EQ(run + Count(log, "event queue overflow"), queued);
  EXPECT_EQ(received, run + std::size_t{4} * 1200) << "also on the shared topic";
}

}  // namespace
