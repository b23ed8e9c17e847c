// What states promise: everybody has the newest, whoever comes first, and nothing older after it.
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

TEST_F(Bridge, WatchersHaveTheNewestWhoeverComesFirst) {
  Numbers early, late, drained;
  const Watcher waits(kState), before(kState, AppendTo(early));
  EXPECT_FALSE(before.Newest() || before.WaitFor(milliseconds(0)));
  auto wait = std::async(std::launch::async, [&] { return waits.WaitFor(milliseconds(-1)); });
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();  // until it does, most likely
  std::optional holder(zorvix::Holder{kState});
  for (int number : {1, 1, 2}) holder->Set({number});
  EXPECT_TRUE(wait.get());
  zorvix::Inbox inbox;
  const Watcher in_inbox(kState, AppendTo(drained), inbox);
  const Watcher sets(kState, [&](const Value& value) {  // first in its constructor
    late.push_back(value.number);
    if (value.number < 4) holder->Set({value.number + 1});
  });
  EXPECT_EQ(late, (Numbers{2, 3, 4}));
  EXPECT_EQ(inbox.Drain(), 1u);
  EXPECT_EQ(drained, Numbers{4});
  holder.reset();
  EXPECT_EQ(before.Newest()->number, 4);
  EXPECT_FALSE(Watcher(kState).Newest());
  holder.emplace(kState);
  holder->Set({5});
  EXPECT_EQ(early, (Numbers{1, 1, 2, 3, 4, 5}));
  zorvix::Holder(zorvix::State<int>{"unwatched"}).Set(1);
  EXPECT_EQ(Count(TakeLog(), "no subscriber"), 0u);
}

TEST_F(Bridge, OlderValueThatIsLateIsNotShown) {
  Numbers second, third;
  zorvix::Holder holder(kState);
  const Watcher holds(kState, [](auto&) { Log("held"); }), has_newer(kState, AppendTo(second));
  HoldLog("held");
  auto older = std::async(std::launch::async, [&] { holder.Set({1}); });
  WaitForLog("held");
  const Watcher comes(kState, AppendTo(third));
  holder.Set({2});
  HoldLog("");
  older.get();
  EXPECT_EQ(second, Numbers{2});
  EXPECT_EQ(third, (Numbers{1, 2})) << "not kept before others hear of it";
}

TEST_F(Bridge, WhatWatchersSeeOnlyGrowsAndEndsWithTheLast) {
  zorvix::Inbox inbox;
  zorvix::Holder holder(kState);
  holder.Set({1000});
  // Not longer on a machine so busy that a thread that yields is not soon back.
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  const auto goes_on = [&] { return !HasFailure() && std::chrono::steady_clock::now() < end; };
  for (int round = 1; round <= 1000 && goes_on(); ++round) {
    std::atomic<int> setting{2};
    const auto set = [&](int number) {
      for (; number <= 1000 * round + 1000; number += 2) holder.Set({number});
      --setting;
    };
    const auto odd = std::async(std::launch::async, set, 1000 * round + 1);
    const auto even = std::async(std::launch::async, set, 1000 * round + 2);
    int newest[2][2] = {};  // of odd and even ones, as seen at once and from the inbox
    const Value* last[2] = {};
    const auto see = [&](int watcher) {
      return [&, watcher](const Value& value) {
        EXPECT_LT(std::exchange(newest[watcher][value.number % 2], value.number), value.number);
        last[watcher] = &value;
      };
    };
    const Watcher at_once(kState, see(0)), in_inbox(kState, see(1), inbox);
    std::atomic<bool> shown;
    const auto show = [&](auto&) {
      for (int i = 0; i < 20 && !shown; ++i) std::this_thread::yield();
      shown = true;
    };
    std::optional<Watcher> comes;  // the last of them about when the last value is set
    do {
      inbox.Drain();
      comes.reset();
      shown = false;
      comes.emplace(kState, show);
      EXPECT_TRUE(shown);
    } while (setting > 0);
    inbox.Drain();
    EXPECT_EQ(comes->Newest(), at_once.Newest());
    for (const auto* value : last) EXPECT_EQ(value, at_once.Newest().get());
  }
}

}  // namespace
