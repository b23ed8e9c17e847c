// What states promise: every watcher has the latest value, whether it is built before or after the
// holder, and nothing older after it.
#include <zorvix/state.h>

#include "bridge_test.h"

namespace {

using std::chrono::milliseconds;
using Numbers = std::vector<int>;

struct Value {
  int number;
  std::unique_ptr<int> that_cannot_be_copied = {};
};
const zorvix::State<Value> kState{"s"};
using Watcher = zorvix::Watcher<Value>;

auto AppendTo(Numbers& numbers) {
  return [&](const Value& value) { numbers.push_back(value.number); };
}

using States = Bridge;

TEST_F(States, LateWatcherHasTheLatestValueWhenItsConstructorReturns) {
  Numbers seen;
  zorvix::Holder holder(kState);
  for (const int number : {1, 2}) holder.Set({number});

  const Watcher watcher(kState, AppendTo(seen));
  const Watcher without_callable(kState);

  EXPECT_EQ(seen, Numbers{2});
  EXPECT_EQ(without_callable.Latest(), watcher.Latest());
}

TEST_F(States, WatchersAreInvokedInDrainsWithTheLatestValueOnly) {
  zorvix::Inbox inbox;
  Numbers seen;
  Numbers queued_seen;
  zorvix::Holder holder(kState);
  holder.Set({1});

  const Watcher watcher(kState, AppendTo(seen), inbox);
  const Watcher queued(kState, AppendTo(queued_seen), zorvix::Delivery::Queued);
  EXPECT_EQ(inbox.Drain(), 1u);
  EXPECT_EQ(queued_seen, Numbers());
  EXPECT_TRUE(ZorvixRunOneceStep());
  for (const int number : {2, 3}) holder.Set({number});
  EXPECT_EQ(inbox.Drain(), 1u);
  ZorvixSpinOnce();

  EXPECT_EQ(seen, (Numbers{1, 3}));
  EXPECT_EQ(queued_seen, seen);
}

TEST_F(States, WatchersKeepTheValueOfAHolderUntilAnotherOneSetsALater) {
  Numbers seen;
  std::optional holder(zorvix::Holder{kState});
  const Watcher watcher(kState, AppendTo(seen));
  for (const int number : {1, 1, 2}) holder->Set({number});

  holder.reset();
  EXPECT_EQ(watcher.Latest()->number, 2);
  TakeLog();
  EXPECT_EQ(Watcher(kState).Latest(), nullptr);
  EXPECT_EQ(Count(TakeLog(), "W: "), 0u);
  holder.emplace(kState);
  EXPECT_EQ(watcher.Latest()->number, 2);
  holder->Set({3});

  EXPECT_EQ(seen, (Numbers{1, 1, 2, 3}));
}

TEST_F(States, LateWatcherHasTheValueOfTheLatestHolderThatStillExists) {
  const auto number = [] { return Watcher(kState).Latest()->number; };
  zorvix::Holder first(kState);
  first.Set({1});
  {
    zorvix::Holder second(kState);
    second.Set({2});
    EXPECT_EQ(number(), 2);
  }
  EXPECT_EQ(number(), 1);

  first.Set({3});
  EXPECT_EQ(number(), 3);
}

TEST_F(States, HolderWithoutWatchersLogsNothing) {
  zorvix::Holder holder(kState);

  holder.Set({1});

  EXPECT_EQ(TakeLog(), Lines{});
}

TEST_F(States, ValueOfAnotherTypeIsLoggedForEarlyAndLateWatchers) {
  const Watcher early(kState);
  zorvix::Holder holder(zorvix::State<int>{"s"});
  TakeLog();

  holder.Set(1);
  const Watcher late(kState);

  EXPECT_EQ(Count(TakeLog(), "the value is an int, the watcher takes a (anonymous namespace)::"),
            2u);
  EXPECT_FALSE(early.Latest() || late.Latest());
}

TEST_F(States, ValueIsSetAndShownThoughAWatcherThrowsAndDestroysItself) {
  Numbers seen;
  zorvix::Holder holder(kState);
  std::optional<Watcher> watcher;
  watcher.emplace(kState, [&](const Value& value) {
    seen.push_back(value.number);
    if (value.number == 1) holder.Set({2});
    if (value.number == 3) watcher.reset();
    if (value.number != 2) throw 1;
  });

  EXPECT_THROW(holder.Set({1}), int);
  EXPECT_THROW(holder.Set({3}), int);

  EXPECT_EQ(seen, (Numbers{1, 2, 3}));
  EXPECT_EQ(Watcher(kState).Latest()->number, 3);
}

TEST_F(States, WatcherWhoseCallableThrowsInItsConstructorDoesNotBlock) {
  zorvix::Holder holder(kState);
  holder.Set({1});
  bool contained = true;
  const auto fail = [&](auto&) {
    if (contained) throw std::runtime_error("bad luck");
    throw 1;
  };

  const Watcher watcher(kState, fail);
  EXPECT_EQ(Count(TakeLog(), "callable failed! error: bad luck, name: s"), 1u);
  contained = false;
  EXPECT_THROW(const Watcher fails(kState, fail), int);
}

}  // namespace
