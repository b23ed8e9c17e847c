// What allocates nothing, how much is allocated, and what happens when allocations fail.
#include <malloc.h>
#include <zorvix/inspect.h>
#include <zorvix/state.h>

#include <cstdlib>
#include <limits>
#include <new>

#include "bridge_test.h"
#include "threads.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace {

// Of this thread. Allocations with the numbers from first_failing to last_failing fail.
thread_local std::size_t allocations = 0;
thread_local std::size_t first_failing = 0;
thread_local std::size_t last_failing = 0;
thread_local std::size_t largest = 0;  // in bytes
thread_local std::size_t allocated = 0;
thread_local std::size_t freed = 0;

constexpr std::size_t kAllLater = std::numeric_limits<std::size_t>::max();

void FailFrom(std::size_t first, std::size_t last) {
  allocations = 0;
  first_failing = first;
  last_failing = last;
}
void FailNone() { FailFrom(0, 0); }

void Free(void* memory) {
  freed += malloc_usable_size(memory);
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
  if (!is_capturing && ++allocations >= first_failing && allocations <= last_failing) {
    throw std::bad_alloc();
  }
  void* const memory = std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  largest = std::max(largest, size);
  allocated += malloc_usable_size(memory);
  return memory;
}
// Not inlined, where g++ would see only that free does not match new.
[[gnu::noinline]] void operator delete(void* memory) noexcept { Free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { Free(memory); }

namespace {

const auto ignore = [](const auto&) {};

using Allocations = Bridge;

TEST_F(Allocations, SmallMessagesAndSyncCallsAllocateNothing) {
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

TEST_F(Allocations, PendingMessagesTakeBlocksOfMemoryThatAreGivenBack) {
  const zorvix::Topic<int> topic{"t"};
  const zorvix::Service<int, int> service{"s"};
  zorvix::Inbox inbox;
  const zorvix::Subscriber subscriber(topic, ignore, inbox, zorvix::KeepAll());
  const zorvix::Server server(service, [](int number) { return number; });
  const zorvix::Publisher publisher(topic);
  const zorvix::Client client(service, inbox);
  constexpr std::size_t kCount = 100'000;
  const std::function<void()> rows[] = {[&] { publisher.Publish(1); },
                                        [&] { client.Call(1, ignore); }};
  for (const auto& add : rows) {
    SCOPED_TRACE(&add - rows);
    largest = 0;
    add();
    inbox.Drain();
    const std::size_t used = allocated - freed;

    for (std::size_t i = 0; i < kCount; ++i) add();
    EXPECT_LT(largest, 10'000u);
    EXPECT_EQ(inbox.Drain(), kCount);

    EXPECT_LT(allocated - freed - used, 20'000u);
  }
}

// Calls `act` until none of its allocations fails: in the first call the first one fails, and so
// on. With `all_later`, so do all later ones. Calls `check(threw)` after each.
template <typename Act, typename Check>
void FailEachAllocation(bool all_later, const Act& act, const Check& check) {
  bool failed = true;
  for (std::size_t next = 1; failed; ++next) {
    SCOPED_TRACE(testing::Message() << "allocation " << next);
    bool threw = false;
    FailFrom(next, all_later ? kAllLater : next);
    try {
      act();
    } catch (const std::bad_alloc&) {
      threw = true;
    }
    failed = allocations >= next;
    FailNone();
    check(threw);
  }
}

TEST_F(Allocations, PresencesSeeHandlesThatAreDestroyedWithoutMemory) {
#ifdef __SANITIZE_ADDRESS__
  const __lsan::ScopedDisabler leaks;  // the name stays registered
#endif
  const zorvix::Topic<int> topic{"destroyed without memory"};
  zorvix::Inbox inbox;
  std::size_t count = 0;
  const auto see = [&](const zorvix::Matched& now) { count = now.count; };
  const zorvix::Presence direct(topic, see);
  const zorvix::Presence with_inbox(topic, see, inbox);
  std::optional subscriber(zorvix::Subscriber(topic, ignore));
  inbox.Drain();

  FailFrom(1, kAllLater);
  subscriber.reset();
  FailNone();

  EXPECT_EQ(count, 0u);
  EXPECT_EQ(with_inbox.Now().count, 0u);
  EXPECT_EQ(inbox.Drain(), 1u);
}

// The parameter tells whether memory is back after one allocation has failed, or stays short.
class Handles : public Bridge, public testing::WithParamInterface<bool> {
 protected:
  void ExpectNoNames() const {
    TakeLog();
    for (const int i : {0, 1, 2, 3}) {
      auto end = MakeControl(name_, BridgeModule{i / 2}, BridgeType{i % 2});
      ZorvixUnregisterPublisher(end);
    }
    EXPECT_EQ(Count(TakeLog(), "E: Unregister"), 4u) << "no such names";
  }
  void ExpectNoReceivers() {
    EXPECT_EQ(zorvix::Watcher(state_).Latest(), nullptr);
    zorvix::Publisher(topic_).Publish(1);
    zorvix::Publisher(async_topic_).Publish(1);
    EXPECT_EQ((zorvix::Client(service_).Call(1)), std::nullopt);
    zorvix::Holder(state_).Set(1);
    ZorvixSpinOnce();
    EXPECT_EQ(inbox_.Drain(), 0u);
    EXPECT_EQ(zorvix::Inspect().size(), 1u);
  }

  const std::string name_ = std::string(60, GetParam() ? 's' : 'o');
  const zorvix::Topic<int> topic_{name_};
  const zorvix::Topic<int, BridgeType::Async> async_topic_{name_};
  const zorvix::Service<int, int> service_{name_};
  const zorvix::State<int> state_{name_};
  zorvix::Inbox inbox_;
};
INSTANTIATE_TEST_SUITE_P(, Handles, testing::Bool());

TEST_P(Handles, ThatCannotBeConstructedLeaveNothingBehindAndAreDestroyedWithoutMemory) {
  constexpr auto kQueued = zorvix::Delivery::Queued;
  const auto owned = std::make_shared<int>();
  const auto fail = [owned](auto&&...) { return ADD_FAILURE(), 0; };
  const auto owners = owned.use_count();
  std::shared_ptr<void> handle;
  const auto keep = [&](auto constructed) {
    handle = std::make_shared<decltype(constructed)>(std::move(constructed));
  };
  const std::function<void()> rows[] = {
      [&] { keep(zorvix::Publisher(topic_, zorvix::Audience::Optional)); },
      [&] { keep(zorvix::Subscriber(topic_, fail)); },
      [&] { keep(zorvix::Subscriber(topic_, fail, kQueued)); },
      [&] { keep(zorvix::Subscriber(topic_, fail, inbox_)); },
      [&] { keep(zorvix::Subscriber(async_topic_, fail)); },
      [&] { keep(zorvix::Server(service_, fail)); },
      [&] { keep(zorvix::Server(service_, fail, kQueued)); },
      [&] { keep(zorvix::Server(service_, fail, inbox_)); },
      [&] { keep(zorvix::Client(service_)); },
      [&] { keep(zorvix::Client(service_, kQueued)); },
      [&] { keep(zorvix::Client(service_, inbox_)); },
      [&] { keep(zorvix::Holder<int>(state_)); },
      [&] { keep(zorvix::Watcher(state_, fail)); },
      [&] { keep(zorvix::Watcher(state_, fail, kQueued)); },
      [&] { keep(zorvix::Watcher(state_, fail, inbox_)); },
      [&] { keep(zorvix::Presence(topic_)); },
      [&] { keep(zorvix::Presence(service_, fail, kQueued)); },
      [&] { keep(zorvix::Presence(state_, fail, inbox_)); }};
  const bool stays_short = GetParam();
#ifdef __SANITIZE_ADDRESS__
  // Names that stay registered exist for ever, longer than the bridge, which refers to them.
  std::optional<__lsan::ScopedDisabler> leaks;
  if (stays_short) leaks.emplace();
#endif
  for (const auto& construct : rows) {
    SCOPED_TRACE(testing::Message() << "row " << &construct - rows);
    FailEachAllocation(stays_short, construct, [&](bool threw) {
      EXPECT_EQ(threw, handle == nullptr);
      if (stays_short) FailFrom(1, kAllLater);
      handle.reset();
      FailNone();
      // What stays registered without memory receives nothing.
      if (!stays_short) ExpectNoNames();
      ExpectNoReceivers();
      EXPECT_EQ(owned.use_count(), owners);
    });
  }
}

TEST_F(Allocations, PendingMessageOfAQueuedSubscriberIsDeliveredWhicheverAllocationFails) {
  const zorvix::Topic<int> topic{"t"};
  const zorvix::Publisher publisher(topic);
  std::size_t invocations = 0;
  std::optional<zorvix::Subscriber<int>> subscriber;
  const auto subscribe = [&] {
    const auto count = [&](int) { ++invocations; };
    subscriber.emplace(topic, count, zorvix::Delivery::Queued);
  };
  subscribe();

  FailEachAllocation(
      false, [&] { publisher.Publish(1); },
      [&](bool) {
        const auto expected = invocations + zorvix::Inspect().at(0).pending;
        EXPECT_TRUE(ComesTrue([&] {
          ZorvixSpinOnce();
          return invocations == expected;
        }));
        subscribe();
      });
  EXPECT_GT(invocations, 1u);
}

TEST_F(Allocations, SetThatThrowsSetsNothingAndAnyOtherReachesAllWatchers) {
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

  FailEachAllocation(
      false, [&] { holder.Set(set + 1); },
      [&](bool threw) {
        if (!threw) ++set;
        inbox.Drain();
        EXPECT_EQ(shown, set);
        EXPECT_EQ(drained, set);
        EXPECT_EQ(*zorvix::Watcher(state).Latest(), set);
      });
}

}  // namespace
