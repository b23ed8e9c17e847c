// What states promise: whoever comes first, the newest is what everybody has, and nothing older
// follows.
#include <zorvix/state.h>

#include <array>

#include "bridge_test.h"

namespace {

using std::chrono::milliseconds;
using zorvix::Holder;
using zorvix::Inbox;

struct Value {  // cannot be copied
  explicit Value(int its) : number(its) {}
  Value(Value&&) = default;
  int number;
};
const zorvix::State<Value> kState{"s"};
using Watcher = zorvix::Watcher<Value>;

TEST_F(Bridge, WatchersHaveTheNewestWhoeverComesFirst) {
  using Numbers = std::vector<int>;
  Numbers early, late, waiting;
  const auto append = [](Numbers& to) {
    return [&to](const Value& value) { to.push_back(value.number); };
  };
  Watcher before(kState, append(early));
  EXPECT_FALSE(before.Newest() || before.WaitFor(milliseconds(0)));
  TakeLog();
  std::optional<Holder<Value>> holder(kState);
  Inbox inbox;
  std::optional<Watcher> in_inbox;
  auto wait = std::async(std::launch::async, [&] { return before.WaitFor(milliseconds(-1)); });
  for (int number : {1, 1, 2}) holder->Set(Value(number));
  EXPECT_TRUE(wait.get());
  in_inbox.emplace(kState, append(waiting), inbox);
  // Sets in its callable, also in the one that its constructor runs.
  const Watcher sets(kState, [&](const Value& value) {
    late.push_back(value.number);
    if (value.number < 4) holder->Set(Value(value.number + 1));
  });
  EXPECT_EQ(late, (Numbers{2, 3, 4}));
  EXPECT_EQ(early, (Numbers{1, 1, 2, 3, 4}));  // none again because of those who came
  EXPECT_TRUE(waiting.empty());
  EXPECT_EQ(inbox.Drain(), 1u);
  EXPECT_EQ(inbox.Drain(), 0u);
  const Watcher last(kState);
  EXPECT_EQ(last.Newest(), sets.Newest());  // the same object
  holder->Set(Value(5));
  in_inbox.reset();
  EXPECT_EQ(inbox.Drain(), 0u);
  EXPECT_EQ(waiting, (Numbers{4}));
  for (const auto& line : TakeLog()) EXPECT_EQ(line[0], 'I') << line;

  holder.reset();
  EXPECT_EQ(last.Newest()->number, 5);
  EXPECT_FALSE(Watcher(kState).Newest());
  holder.emplace(kState);
  EXPECT_FALSE(Watcher(kState).Newest());
  holder->Set(Value(6));
  EXPECT_EQ(early.back(), 6);
  EXPECT_EQ(last.Newest()->number, 6);
}

TEST_F(Bridge, OlderValueThatIsLateIsNotShown) {
  Holder holder(kState);
  std::vector<int> one, two, three;
  const Watcher first(kState, [&](const Value& value) {
    Log("first");
    one.push_back(value.number);
  });
  const Watcher second(kState, [&](const Value& value) { two.push_back(value.number); });
  HoldLog("first");
  auto set = std::async(std::launch::async, [&] { holder.Set(Value(1)); });
  WaitForLog("first");
  const Watcher third(kState, [&](const Value& value) { three.push_back(value.number); });
  EXPECT_EQ(three, std::vector{1});  // is kept before others hear of it
  holder.Set(Value(2));              // while the first still runs for the one before
  EXPECT_EQ(two, std::vector{2});
  HoldLog("");
  set.get();
  EXPECT_EQ(one, (std::vector{1, 2}));
  EXPECT_EQ(two, std::vector{2});
  EXPECT_EQ(three, (std::vector{1, 2}));
}

constexpr int kMany = 1'000'000;
using Counts = std::array<std::atomic<int>, 3>;  // how many values each thread has set

// A watcher and what it sees of values that threads set, numbered kMany * thread + 1, 2, ...
struct Watched {
  Watched(const Counts& set, Inbox* inbox) {
    bool any = false;
    for (std::size_t i = 0; i < set.size(); ++i) any |= (least[i] = set[i]) > 0;
    const auto see = [seen = seen, least = least](const Value& value) mutable {
      EXPECT_FALSE(seen->running.exchange(true) || seen->over);
      std::this_thread::yield();
      int& bound = least[static_cast<std::size_t>(value.number / kMany)];
      EXPECT_GE(value.number % kMany, bound);
      bound = value.number % kMany + 1;
      seen->numbers.push_back(value.number);
      ++seen->count;
      EXPECT_FALSE(!seen->running.exchange(false) || seen->over);
    };
    inbox ? watcher.emplace(kState, see, *inbox) : watcher.emplace(kState, see);
    const auto newest = watcher->Newest();
    EXPECT_TRUE(!any || (newest && (inbox || seen->count > 0)));
    const int number = newest ? newest->number : 0;
    EXPECT_GE(number % kMany, least[static_cast<std::size_t>(number / kMany)]);
  }
  ~Watched() {
    watcher.reset();
    seen->over = true;
  }
  // Returns what another has seen, too.
  std::vector<int> Common(const Watched& other) const {
    std::vector<int> numbers;
    for (const int number : seen->numbers) {
      const auto end = other.seen->numbers.end();
      if (std::find(other.seen->numbers.begin(), end, number) != end) numbers.push_back(number);
    }
    return numbers;
  }
  struct Seen {
    std::vector<int> numbers;
    std::atomic<int> count{0};
    std::atomic<bool> running{false}, over{false};
  };
  std::array<int, 3> least{};  // of each thread, that may still be seen
  const std::shared_ptr<Seen> seen = std::make_shared<Seen>();
  std::optional<Watcher> watcher;
};

TEST_F(Bridge, WhatWatchersSeeOnlyGrowsAndEndsWithTheLast) {
  for (int round = 0; round < 200 && !HasFailure(); ++round) {
    const int setters = 1 + round % 3;
    Counts set{};
    Holder holder(kState);
    Inbox inbox;
    std::optional<zorvix::InboxThread> drains(inbox);
    std::deque<Watched> watched;
    watched.emplace_back(set, nullptr);
    watched.emplace_back(set, &inbox);
    std::atomic<int> built{0};
    std::vector<std::future<void>> threads;
    for (int setter = 0; setter < setters; ++setter) {
      threads.push_back(std::async(std::launch::async, [&, setter] {
        do {
          auto& number = set[static_cast<std::size_t>(setter)];
          holder.Set(Value(kMany * setter + number + 1));
          ++number;
        } while (built <= 2 + setter);
      }));
    }
    while (++built < 6) {
      Watched(set, built % 2 == 0 ? &inbox : nullptr);  // comes and goes
      watched.emplace_back(set, built % 2 == 0 ? nullptr : &inbox);
    }
    for (auto& thread : threads) thread.get();
    drains.reset();
    const auto last = Watcher(kState).Newest();
    for (const auto& each : watched) {
      EXPECT_EQ(each.watcher->Newest(), last);
      EXPECT_EQ(each.seen->numbers.back(), last->number);
      EXPECT_EQ(each.Common(watched[0]), watched[0].Common(each));
    }
    for (const auto& line : TakeLog()) EXPECT_EQ(line[0], 'I') << line;
  }
}

}  // namespace
