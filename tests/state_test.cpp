// What states promise: everybody has the newest, whoever comes first, and nothing older after it.
#include <zorvix/state.h>

#include <array>

#include "bridge_test.h"

namespace {

using std::chrono::milliseconds;
using zorvix::Holder;
using zorvix::Inbox;
using Numbers = std::vector<int>;

struct Value {  // cannot be copied
  explicit Value(int its, std::size_t by = 0) : number(its), thread(by) {}
  Value(Value&&) = default;
  int number;
  std::size_t thread;
};
const zorvix::State<Value> kState{"s"};
using Watcher = zorvix::Watcher<Value>;

auto AppendTo(Numbers& numbers) {
  return [&](const Value& value) { numbers.push_back(value.number); };
}

TEST_F(Bridge, WatchersHaveTheNewestWhoeverComesFirst) {
  Numbers early, late, drained;
  const Watcher before(kState, AppendTo(early));
  EXPECT_FALSE(before.Newest() || before.WaitFor(milliseconds(0)));
  const Watcher waits(kState);
  auto wait = std::async(std::launch::async, [&] { return waits.WaitFor(milliseconds(-1)); });
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();  // until it does, most likely
  TakeLog();
  std::optional<Holder<Value>> holder(kState);
  EXPECT_FALSE(Watcher(kState).Newest());
  for (int number : {1, 1, 2}) holder->Set(Value(number));
  EXPECT_TRUE(wait.get());
  Inbox inbox;
  std::optional<Watcher> in_inbox(Watcher(kState, AppendTo(drained), inbox));
  const Watcher sets(kState, [&](const Value& value) {  // first in its constructor
    late.push_back(value.number);
    if (value.number < 4) holder->Set(Value(value.number + 1));
  });
  EXPECT_EQ(late, (Numbers{2, 3, 4}));
  EXPECT_EQ(early, (Numbers{1, 1, 2, 3, 4})) << "again for others";
  EXPECT_EQ(sets.Newest(), before.Newest()) << "not the same object";
  EXPECT_EQ(inbox.Drain() + inbox.Drain(), 1u);
  holder->Set(Value(5));
  Holder(zorvix::State<Value>{"unwatched"}).Set(Value(1));
  in_inbox.reset();
  EXPECT_EQ(inbox.Drain(), 0u);
  EXPECT_EQ(drained, Numbers{4});
  for (const auto& line : TakeLog()) EXPECT_EQ(line[0], 'I') << line;

  holder.reset();
  EXPECT_EQ(before.Newest()->number, 5);
  EXPECT_FALSE(Watcher(kState).Newest());
  holder.emplace(kState);
  holder->Set(Value(6));
  EXPECT_EQ(before.Newest()->number, 6);
}

TEST_F(Bridge, OlderValueThatIsLateIsNotShown) {
  Holder holder(kState);
  Numbers one, two, three;
  const Watcher first(kState, [&](const Value& value) {
    Log("first");
    one.push_back(value.number);
  });
  const Watcher second(kState, AppendTo(two));
  HoldLog("first");
  auto older = std::async(std::launch::async, [&] { holder.Set(Value(1)); });
  WaitForLog("first");
  const Watcher third(kState, AppendTo(three));
  EXPECT_EQ(three, Numbers{1}) << "not kept before others hear of it";
  holder.Set(Value(2));
  EXPECT_EQ(two, Numbers{2});
  HoldLog("");
  older.get();
  EXPECT_EQ(one, (Numbers{1, 2}));
  EXPECT_EQ(two, Numbers{2});
}

// Sees values that threads set, each its own 1, 2, ...
struct Watched {
  using Numbers = std::array<std::atomic<int>, 3>;
  Watched(const Numbers& set, Inbox* inbox) {
    std::copy(set.begin(), set.end(), least.begin());
    const bool any = least != decltype(least){};
    const auto see = [this](const Value& value) {
      EXPECT_GE(value.number, least[value.thread]);
      for (int i = 0; !last && i < 50; ++i) std::this_thread::yield();
      least[value.thread] = value.number + 1;
      last = &value;
    };
    inbox ? watcher.emplace(kState, see, *inbox) : watcher.emplace(kState, see);
    EXPECT_TRUE(!any || (inbox ? watcher->Newest().get() : last.load()));
  }
  std::array<int, 3> least{};  // that each thread may still show; one at a time sees it
  std::atomic<const Value*> last{nullptr};
  std::optional<Watcher> watcher;  // goes first
};

TEST_F(Bridge, WhatWatchersSeeOnlyGrowsAndEndsWithTheLast) {
  constexpr int kRounds = 1000;
  Holder holder(kState);
  Inbox inbox;
  std::optional<zorvix::InboxThread> drains(inbox);
  Watched::Numbers set{};
  std::atomic<int> round{0};
  std::vector<std::future<void>> threads;
  for (std::size_t thread = 0; thread < set.size(); ++thread) {
    threads.push_back(std::async(std::launch::async, [&, thread] {
      for (int turn = 1; turn <= kRounds; ++turn) {
        while (round < turn) std::this_thread::yield();
        for (int number = 100 * turn - turn % 2 * 50; number <= 100 * turn; ++number) {
          holder.Set(Value(number, thread));
          set[thread] = number;
        }
      }
    }));
  }
  const Watched stays(set, nullptr), drained(set, &inbox);
  while (round < kRounds && !HasFailure()) {
    ++round;
    const Watched comes(set, round % 2 != 0 ? nullptr : &inbox);
    std::vector<Watcher> come;  // one of them just when the last value is set
    const auto under_way = [&](const auto& number) { return number < 100 * round; };
    while (std::any_of(set.begin(), set.end(), under_way)) {
      if (come.size() == 4) come.clear();
      come.emplace_back(kState);
    }
    come.emplace_back(kState);
    for (const auto& each : come) EXPECT_EQ(each.Newest(), come.back().Newest());
    EXPECT_EQ(stays.watcher->Newest(), come.back().Newest());
    EXPECT_EQ(stays.last, come.back().Newest().get());
    EXPECT_TRUE(round % 2 == 0 || comes.last == stays.last);
  }
  round = kRounds;
  threads.clear();
  drains.reset();
  EXPECT_EQ(drained.last, stays.last);
}

}  // namespace
