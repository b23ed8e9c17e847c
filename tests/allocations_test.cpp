// What the bridge allocates, and what holds while it does or cannot.
#include <zorvix/state.h>

#include <bitset>
#include <cstdlib>
#include <new>

#include "bridge_test.h"

namespace {

// Of this thread. The hook is called once, at the first allocation or at the first that is as large
// as an earlier one.
thread_local std::size_t allocations = 0, failing = 0;  // the number of one that fails
thread_local std::bitset<1000> sizes;
thread_local void (*hook)() = nullptr;

void HookAllocation(bool first, void (*function)()) {
  first ? sizes.set() : sizes.reset();
  hook = function;
}

}  // namespace

void* operator new(std::size_t size) {
  if (++allocations == failing) throw std::bad_alloc();
  if (hook != nullptr && size < sizes.size()) {
    if (sizes[size]) std::exchange(hook, nullptr)();
    sizes.set(size);
  }
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
// Not inlined, where g++ would see only that free does not match new.
__attribute__((noinline)) void operator delete(void* memory) noexcept { std::free(memory); }
__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

TEST_F(Bridge, DeliveryAtOnceAllocatesNothingAndOneShotsNoMoreThanOthers) {
  const std::string name(60, 'n');
  const auto ignore = Subscriber([](auto&) {});
  std::size_t by_type[3];
  for (const auto type : {BridgeType::Sync, BridgeType::Async, BridgeType::SignleAsync}) {
    auto& topic = Subscribed(name, type, {ignore, ignore, ignore, ignore});
    allocations = 0;
    EXPECT_TRUE(ZorvixPublish(topic, 1));
    by_type[static_cast<int>(type)] = allocations;
    ZorvixSpinOnce();
  }
  EXPECT_EQ(by_type[0], 0u);
  EXPECT_LE(by_type[2], by_type[1] + 1) << "a block of the queue may begin in one of them";
  auto& service = Service(name, BridgeType::Sync);
  ZorvixRegisterServer(service, Server([](auto&, auto&) {}));
  bridge::RequestCallback request = Request;
  allocations = 0;
  EXPECT_TRUE(ZorvixCall(service, std::move(request)));
  EXPECT_EQ(allocations, 0u);
}

TEST_F(Bridge, TasksPostedBeforeAFailureAreRun) {
  const auto log = Subscriber([](auto&) { Log("ran"); });
  auto& topic = Subscribed("t", BridgeType::Async, {log, log});
  const zorvix::Workers workers(1);
  for (std::size_t round = 1; round <= 20; ++round) {  // most of which find the worker asleep
    WaitForLog("Spin loop once lock.", round);
    HookAllocation(false, [] { throw std::bad_alloc(); });
    EXPECT_THROW(ZorvixPublish(topic, 1), std::bad_alloc);
    WaitForLog("ran", round);
  }
}

// A publication is held between its tasks, with all workers asleep beside a queue of one, and a
// call before its task.
TEST_F(Bridge, OneShotsAreUsedUpBeforeTheyQueueAndCallsWakeAllWorkers) {
  const auto log = Subscriber([](auto&) { Log("held, running"); });
  const auto server = Server([](auto&, auto&) { Log("held, running"); });
  const auto hold = [] { Log("held, allocating"); };
  auto& topic = Subscribed("t", BridgeType::SignleAsync, {log, log});
  auto& one_shot = Service("s", BridgeType::SignleAsync);
  auto& service = Service("s", BridgeType::Async);
  ZorvixRegisterServer(one_shot, server);
  ZorvixRegisterServer(service, server);
  const zorvix::Workers workers(2);
  WaitForLog("Spin loop once lock.", 2);
  HoldLog("held");
  const auto publication = std::async(std::launch::async, [&] {
    HookAllocation(false, hold);
    EXPECT_TRUE(ZorvixPublish(topic, 1));
  });
  const auto call = std::async(std::launch::async, [&] {
    bridge::RequestCallback request = Request;
    HookAllocation(true, hold);
    EXPECT_TRUE(ZorvixCall(one_shot, std::move(request)));
  });
  WaitForLog("held, allocating", 2);
  EXPECT_FALSE(ZorvixPublish(topic, 1));
  EXPECT_FALSE(ZorvixCall(one_shot, Request));
  EXPECT_TRUE(ZorvixCall(service, Request));
  WaitForLog("held, running", 2);
  HoldLog("");
  WaitForLog("held, running", 4);
}

// Each allocation fails in turn; what had been entered by then is gone.
TEST_F(Bridge, HandleThatCannotBeBuiltLeavesNothingBehind) {
  const std::string name(60, 'n');
  zorvix::Inbox inbox;
  const auto owned = std::make_shared<int>();
  const auto fail = [owned](auto&&...) { return ADD_FAILURE(), 0; };
  const auto owners = owned.use_count();
  const zorvix::Topic<int> topic{name};
  const zorvix::Topic<int, BridgeType::Async> queued{name};
  const zorvix::Service<int, int> service{name};
  const zorvix::State<int> state{name};
  bool built = false;
  const auto made = [&] {  // from here on all goes well
    built = true;
    failing = 0;
  };
  const std::function<void()> rows[] = {[&] {
                                          const zorvix::Publisher handle(topic);
                                          made();
                                        },
                                        [&] {
                                          const zorvix::Subscriber handle(topic, fail);
                                          made();
                                        },
                                        [&] {
                                          const zorvix::Subscriber handle(topic, fail,
                                                                          zorvix::Delivery::Queued);
                                          made();
                                        },
                                        [&] {
                                          const zorvix::Subscriber handle(topic, fail, inbox);
                                          made();
                                        },
                                        [&] {
                                          const zorvix::Subscriber handle(queued, fail);
                                          made();
                                        },
                                        [&] {
                                          const zorvix::Server handle(service, fail);
                                          made();
                                        },
                                        [&] {
                                          const zorvix::Client handle(service);
                                          made();
                                        },
                                        [&] {
                                          const zorvix::Holder<int> handle(state);
                                          made();
                                        },
                                        [&] {
                                          const zorvix::Watcher handle(state, fail, inbox);
                                          made();
                                        }};
  for (const auto& row : rows) {
    built = false;
    for (std::size_t next = 1; !built; ++next) {
      SCOPED_TRACE(testing::Message() << "row " << &row - rows << ", allocation " << next);
      failing = next;
      allocations = 0;
      try {
        row();
      } catch (const std::bad_alloc&) {
        failing = 0;
      }
      for (const auto type : {BridgeType::Sync, BridgeType::Async}) {
        Endpoint ends[] = {
            std::make_shared<bridge::Control>(bridge::Control{name, BridgeModule::Topic, type}),
            std::make_shared<bridge::Control>(bridge::Control{name, BridgeModule::Service, type})};
        TakeLog();
        ZorvixUnregisterPublisher(ends[0]);
        ZorvixUnregisterClient(ends[1]);
        EXPECT_EQ(Count(TakeLog(), "E: Unregister"), 2u) << "no such name";
      }
      ZorvixSpinOnce();
      EXPECT_EQ(inbox.Drain(), 0u);
      EXPECT_EQ(owned.use_count(), owners);
    }
  }
}

}  // namespace
