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

TEST_F(Bridge, SmallMessagesAndSyncCallsAllocateNothing) {
  const std::string name(60, 'n');
  const zorvix::Topic<int> topic{name};
  const zorvix::Service<int, int> service{name};
  const auto same = [](int number) { return number; };
  zorvix::Inbox inbox;
  const zorvix::Subscriber direct(topic, same);
  const zorvix::Subscriber with_inbox(topic, same, inbox);
  const zorvix::Server server(service, same);
  const zorvix::Publisher publisher(topic);
  const zorvix::Client client(service);
  publisher.Publish(1);
  inbox.Drain();
  allocations = 0;

  publisher.Publish(2);
  inbox.Drain();
  client.Call(2);

  EXPECT_EQ(allocations, 0u);
}

// Calls `act` until none of its allocations fails: in the first call the first one fails, and so
// on. Calls `check(threw)` after each.
template <typename Act, typename Check>
void FailEachAllocation(const Act& act, const Check& check) {
  bool failed = true;
  for (std::size_t next = 1; failed; ++next) {
    SCOPED_TRACE(testing::Message() << "allocation " << next);
    bool threw = false;
    allocations = 0;
    failing = next;
    try {
      act();
    } catch (const std::bad_alloc&) {
      threw = true;
    }
    failed = allocations >= next;
    failing = 0;
    check(threw);
  }
}

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
  std::shared_ptr<void> handle;
  const auto keep = [&](auto built) {
    handle = std::make_shared<decltype(built)>(std::move(built));
  };
  const std::function<void()> rows[] = {
      [&] { keep(zorvix::Publisher(topic, zorvix::Audience::Optional)); },
      [&] { keep(zorvix::Subscriber(topic, fail)); },
      [&] { keep(zorvix::Subscriber(topic, fail, zorvix::Delivery::Queued)); },
      [&] { keep(zorvix::Subscriber(topic, fail, inbox)); },
      [&] { keep(zorvix::Subscriber(queued, fail)); },
      [&] { keep(zorvix::Server(service, fail)); },
      [&] { keep(zorvix::Server(service, fail, inbox)); },
      [&] { keep(zorvix::Client(service)); },
      [&] { keep(zorvix::Client(service, inbox)); },
      [&] { keep(zorvix::Holder<int>(state)); },
      [&] { keep(zorvix::Watcher(state, fail, inbox)); }};
  for (const auto& build : rows) {
    SCOPED_TRACE(testing::Message() << "row " << &build - rows);
    FailEachAllocation(build, [&](bool) {
      handle.reset();
      TakeLog();
      for (const int i : {0, 1, 2, 3}) {
        auto end = MakeControl(name, BridgeModule{i / 2}, BridgeType{i % 2});
        ZorvixUnregisterPublisher(end);
      }
      EXPECT_EQ(Count(TakeLog(), "E: Unregister"), 4u) << "no such names";
      ZorvixSpinOnce();
      EXPECT_EQ(inbox.Drain(), 0u);
      EXPECT_EQ(owned.use_count(), owners);
    });
  }
}

TEST_F(Bridge, SetThatThrowsSetsNothingAndAnyOtherReachesAllWatchers) {
  const zorvix::State<int> state{std::string(1000, 's')};  // the bridge allocates for long names
  zorvix::Inbox inbox;
  int set = 0;
  int shown = 0;
  int drained = 0;
  zorvix::Holder holder(state);
  const zorvix::Watcher direct(state, [&](int number) { shown = number; });
  const zorvix::Watcher with_inbox(
      state, [&](int number) { drained = number; }, inbox);
  holder.Set(set);
  inbox.Drain();

  FailEachAllocation([&] { holder.Set(set + 1); },
                     [&](bool threw) {
                       if (!threw) ++set;
                       inbox.Drain();
                       EXPECT_EQ(shown, set);
                       EXPECT_EQ(drained, set);
                       EXPECT_EQ(*zorvix::Watcher(state).Newest(), set);
                     });
}

}  // namespace
