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
  explicit Value(int its) : number(its) {}
  Value(Value&&) = default;
  int number;
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
  auto wait = std::async(std::launch::async, [&] { return before.WaitFor(milliseconds(-1)); });
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

constexpr int kMany = 1'000'000;
using Counts = std::array<std::atomic<int>, 3>;  // how many values each thread has set

// Sees values that threads set, numbered kMany * thread + 1, 2, ...
struct Watched {
  Watched(const Counts& set, Inbox* inbox) {
    std::array<int, 3> least{};  // of each thread, that may still be seen
    for (std::size_t i = 0; i < set.size(); ++i) least[i] = set[i];
    const bool any = least != std::array<int, 3>{};
    const auto see = [seen = seen, least](const Value& value) mutable {
      EXPECT_FALSE(seen->running.exchange(true) || seen->over);
      std::this_thread::yield();
      int& bound = least[static_cast<std::size_t>(value.number / kMany)];
      EXPECT_GE(value.number % kMany, bound);
      bound = value.number % kMany + 1;
      seen->last = value.number;
      EXPECT_FALSE(!seen->running.exchange(false) || seen->over);
    };
    inbox ? watcher.emplace(kState, see, *inbox) : watcher.emplace(kState, see);
    EXPECT_TRUE(!any || (inbox ? watcher->Newest() != nullptr : seen->last > 0));
  }
  ~Watched() {
    watcher.reset();
    seen->over = true;
  }
  struct Seen {
    std::atomic<int> last{0};
    std::atomic<bool> running{false}, over{false};
  };
  const std::shared_ptr<Seen> seen = std::make_shared<Seen>();
  std::optional<Watcher> watcher;
};

TEST_F(Bridge, WhatWatchersSeeOnlyGrowsAndEndsWithTheLast) {
  for (int round = 0; round < 200 && !HasFailure(); ++round) {
    Counts set{};
    std::atomic<int> built{0};
    Holder holder(kState);
    Inbox inbox;
    std::optional<zorvix::InboxThread> drains(inbox);
    std::vector<std::future<void>> threads;
    for (int thread = 0; thread <= round % 3; ++thread) {
      threads.push_back(std::async(std::launch::async, [&, thread] {
        auto& number = set[static_cast<std::size_t>(thread)];
        do {
          holder.Set(Value(kMany * thread + number + 1));
        } while (++number,
                 built < 3 + thread);  // so the last is about when the last watcher is built
      }));
    }
    std::deque<Watched> watched;
    for (; built < 6; ++built) {
      Watched(set, built % 2 == 0 ? &inbox : nullptr);  // comes and goes
      watched.emplace_back(set, built % 2 == 0 ? nullptr : &inbox);
    }
    for (auto& thread : threads) thread.get();
    drains.reset();
    const auto last = Watcher(kState).Newest();
    for (const auto& each : watched) {
      EXPECT_EQ(each.watcher->Newest(), last);
      EXPECT_EQ(each.seen->last, last->number);
    }
    for (const auto& line : TakeLog()) EXPECT_EQ(line[0], 'I') << line;
  }
}

}  // namespace
