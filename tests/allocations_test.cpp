// What the bridge allocates, and what holds while it does or cannot.
#include <zorvix/state.h>

#include <bitset>
#include <cstdlib>
#include <new>

#include "bridge_test.h"

namespace {

// Of this thread. The hook is called once, by the first allocation of a size that is in sizes,
// where each allocation puts its own.
thread_local std::size_t allocations = 0, failing = 0;  // the number of one that fails
thread_local std::bitset<1000> sizes;
thread_local void (*hook)() = nullptr;

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
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

TEST_F(Bridge, DeliveryAtOnceAllocatesNothing) {
  const std::string name(60, 'n');
  auto& topic = Subscribed(name, BridgeType::Sync, {Subscriber([](auto&) {})});
  auto& service = Service(name, BridgeType::Sync, Server([](auto&, auto&) {}));
  bridge::RequestCallback request = Request;
  allocations = 0;
  EXPECT_TRUE(ZorvixPublish(topic, 1));
  EXPECT_TRUE(ZorvixCall(service, std::move(request)));
  EXPECT_EQ(allocations, 0u);
}

// A publication is held between its tasks, with all workers asleep beside a queue of one, and a
// call before its task.
TEST_F(Bridge, OneShotsAreUsedUpBeforeTheyQueueAndCallsWakeAllWorkers) {
  const auto log = Subscriber([](auto&) { Log("held, running"); });
  const auto server = Server([](auto&, auto&) { Log("held, running"); });
  const auto hold = +[] { Log("held, allocating"); };
  auto& topic = Subscribed("t", BridgeType::SignleAsync, {log, log});
  auto& one_shot = Service("s", BridgeType::SignleAsync, server);
  auto& service = Service("s", BridgeType::Async, server);
  const zorvix::Workers workers(2);
  WaitForLog("Spin loop once lock.", 2);
  HoldLog("held");
  const auto publication = std::async(std::launch::async, [&] {
    hook = hold;
    EXPECT_TRUE(ZorvixPublish(topic, 1));
  });
  const auto call = std::async(std::launch::async, [&] {
    bridge::RequestCallback request = Request;
    sizes.set();
    hook = hold;
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
  const auto built = [](const auto&) { failing = 0; };
  const std::function<void()> rows[] = {
      [&] { built(zorvix::Publisher(topic)); },
      [&] { built(zorvix::Subscriber(topic, fail)); },
      [&] { built(zorvix::Subscriber(topic, fail, zorvix::Delivery::Queued)); },
      [&] { built(zorvix::Subscriber(topic, fail, inbox)); },
      [&] { built(zorvix::Subscriber(queued, fail)); },
      [&] { built(zorvix::Server(service, fail)); },
      [&] { built(zorvix::Client(service)); },
      [&] { built(zorvix::Holder<int>(state)); },
      [&] { built(zorvix::Watcher(state, fail, inbox)); }};
  for (const auto& build : rows) {
    bool more = true;
    for (std::size_t next = 1; more; ++next) {
      SCOPED_TRACE(testing::Message() << "row " << &build - rows << ", allocation " << next);
      allocations = 0;
      failing = next;
      try {
        build();
      } catch (const std::bad_alloc&) {
      }
      more = std::exchange(failing, 0) != 0;
      TakeLog();
      for (const int i : {0, 1, 2, 3}) {
        auto end = MakeControl(name, BridgeModule{i / 2}, BridgeType{i % 2});
        ZorvixUnregisterPublisher(end);
      }
      EXPECT_EQ(Count(TakeLog(), "E: Unregister"), 4u) << "no such names";
      ZorvixSpinOnce();
      EXPECT_EQ(inbox.Drain(), 0u);
      EXPECT_EQ(owned.use_count(), owners);
    }
  }
}

}  // namespace
