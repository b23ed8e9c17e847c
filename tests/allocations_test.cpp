// What allocates nothing, and what happens when an allocation fails.
#include <zorvix/state.h>

#include <cstdlib>
#include <new>

#include "bridge_test.h"

namespace {

// Of this thread. The allocation with the number in `failing` fails.
thread_local std::size_t allocations = 0;
thread_local std::size_t failing = 0;

}  // namespace

void* operator new(std::size_t size) {
  if (++allocations == failing) throw std::bad_alloc();
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
// Not inlined, where g++ would see only that free does not match new.
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

TEST_F(Bridge, SyncDeliveryAllocatesNothing) {
  const std::string name(60, 'n');
  auto& topic = Subscribed(name, BridgeType::Sync, {Subscriber([](auto&) {})});
  auto& service = Service(name, BridgeType::Sync, Server([](auto&, auto&) {}));
  bridge::RequestCallback request = Request;
  allocations = 0;

  ZorvixPublish(topic, 1);
  ZorvixCall(service, std::move(request));

  EXPECT_EQ(allocations, 0u);
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
