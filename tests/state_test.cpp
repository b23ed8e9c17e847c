// What states promise: every watcher has the latest value, whether it is built before or after the
// holder, and nothing older after it.
#include <zorvix/state.h>

#include "bridge_test.h"
#include "threads.h"

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

TEST_F(Bridge, LateWatcherHasTheLatestValueWhenItsConstructorReturns) {
  Numbers seen;
  zorvix::Holder holder(kState);
  for (const int number : {1, 2}) holder.Set({number});

  const Watcher watcher(kState, AppendTo(seen));
  const Watcher without_callable(kState);

  EXPECT_EQ(seen, Numbers{2});
  EXPECT_EQ(without_callable.Latest(), watcher.Latest());
}

TEST_F(Bridge, WatchersAreInvokedInDrainsWithTheLatestValueOnly) {
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

TEST_F(Bridge, WatchersKeepTheValueOfAHolderUntilAnotherOneSetsALater) {
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

TEST_F(Bridge, LateWatcherHasTheValueOfTheLatestHolderThatStillExists) {
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

TEST_F(Bridge, HolderWithoutWatchersLogsNothing) {
  zorvix::Holder holder(kState);

  holder.Set({1});

  EXPECT_EQ(TakeLog(), Lines{});
}

TEST_F(Bridge, ValueOfAnotherTypeIsLoggedForEarlyAndLateWatchers) {
  const Watcher early(kState);
  zorvix::Holder holder(zorvix::State<int>{"s"});
  TakeLog();

  holder.Set(1);
  const Watcher late(kState);

  EXPECT_EQ(Count(TakeLog(), "the value is an int, the watcher takes a (anonymous namespace)::"),
            2u);
  EXPECT_FALSE(early.Latest() || late.Latest());
}

TEST_F(Bridge, ValueIsSetAndShownThoughAWatcherThrowsAndDestroysItself) {
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

TEST_F(Bridge, WatcherWhoseCallableThrowsInItsConstructorDoesNotBlock) {
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

TEST_F(Bridge, MovedFromHolderAndWatcherDoNothing) {
  Numbers seen;
  zorvix::Holder holder(kState);
  Watcher watcher(kState, AppendTo(seen));

  zorvix::Holder new_holder(std::move(holder));
  const Watcher new_watcher(std::move(watcher));
  holder.Set({1});
  new_holder.Set({2});

  EXPECT_FALSE(watcher.Latest() || watcher.WaitForValue());
  EXPECT_EQ(new_watcher.WaitForValue(milliseconds(0)), new_watcher.Latest());
  EXPECT_EQ(seen, Numbers{2});
}

TEST_F(Bridge, WaitForValueWakesEveryThreadThatWaitsHoweverLong) {
  zorvix::Holder holder(kState);
  const Watcher without_callable(kState);
  const Watcher with_callable(kState, [](auto&) {});
  EXPECT_EQ(with_callable.WaitForValue(milliseconds(1)), nullptr);
  const auto wait = [&](int thread) {
    const Watcher& watcher = thread < 2 ? without_callable : with_callable;
    EXPECT_NE(thread % 2 == 0 ? watcher.WaitForValue(milliseconds::max()) : watcher.WaitForValue(),
              nullptr);
  };

  ExpectWakesAll(wait, [&] { holder.Set({1}); });
}

TEST_F(Bridge, WatchersSeeTheValuesOfEachThreadInOrderAndTheLastInTheEnd) {
  constexpr int kSetters = 2;
  constexpr int kCount = 1000;
  zorvix::Inbox inbox;
  zorvix::Holder holder(kState);
  std::atomic<int> setting{kSetters};
  int latest[3][kSetters] = {};
  const Value* last[3] = {};
  const auto see = [&](int watcher) {
    return [&, watcher](const Value& value) {
      EXPECT_LT(std::exchange(latest[watcher][value.number % kSetters], value.number),
                value.number);
      last[watcher] = &value;
    };
  };
  const Watcher direct(kState, see(0));
  const Watcher with_inbox(kState, see(1), inbox);
  const Watcher queued(kState, see(2), zorvix::Delivery::Queued);
  std::optional<zorvix::Workers> workers(2);

  OnThreads(kSetters + 1, [&](int thread) {
    if (thread == kSetters) {
      while (setting > 0) {
        inbox.Drain();
        static_cast<void>(direct.Latest());  // while it changes
      }
    } else {
      for (int i = 1; i <= kCount; ++i) holder.Set({i * kSetters + thread});
      --setting;
    }
  });
  inbox.Drain();
  workers.reset();
  ZorvixSpinOnce();

  EXPECT_EQ(direct.Latest(), with_inbox.Latest());
  for (const auto* value : last) EXPECT_EQ(value, direct.Latest().get());
}

TEST_F(Bridge, EarlyAndLateWatcherAgreeWhenTwoThreadsSet) {
  zorvix::Holder holder(kState);
  const Watcher early(kState);
  for (int round = 0; round < 500 && !HasFailure(); ++round) {
    int shown = -1;
    std::optional<Watcher> late;

    OnThreads(3, [&](int thread) {
      if (thread < 2) {
        holder.Set({2 * round + thread});
      } else {
        late.emplace(kState, [&](const Value& value) {
          EXPECT_NE(std::exchange(shown, value.number), value.number);
        });
      }
    });

    EXPECT_EQ(early.Latest(), late->Latest());
    EXPECT_EQ(early.Latest()->number, shown);
  }
}

}  // namespace
