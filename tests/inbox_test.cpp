// What inboxes and queued subscribers promise: a walk against a model, and laws under threads.
#include <poll.h>

#include <random>

#include "bridge_test.h"

namespace {

using zorvix::Inbox;
using zorvix::KeepLast;

const zorvix::Topic<int> kGone{"gone"};
struct Message {  // copied where others are moved, too
  explicit Message(int its) : number(its) {}
  Message(const Message& other) : number(other.number) { ++copies; }
  ~Message() { zorvix::Publisher(kGone).Publish(number); }  // as it may: no lock is held
  int number;
  static inline std::atomic<std::size_t> copies{0};
};
const zorvix::Topic<Message> kTopic{"t"};
const auto ignore = [](auto&) {};

// One thread does at random what users may do, also inside callables. A model says what must come
// of it: what runs, waits and is lost, and what a descriptor, the bridge's queue and the log show.
class Inboxes : public Bridge {
 protected:
  using Item = std::pair<const void*, int>;  // whose, and its number

  struct Room {  // an inbox, or what a queued subscriber has instead
    std::optional<Inbox> inbox;
    std::deque<Item> items;
    bool open = true, draining = false;
    int end = 0;          // the newest that the drain may run
    std::size_t ran = 0;  // in it
  };
  struct Reader {
    int keep;
    std::shared_ptr<Room> room;
    int lost = 0;
  };

  int Any(std::size_t below) { return static_cast<int>(random_() % below); }

  static auto Of(const Reader& its) {
    return [&](auto& item) { return item.first == &its; };
  }
  static auto Waiting(const Room& room, const Reader& reader) {
    return std::count_if(room.items.begin(), room.items.end(), Of(reader));
  }

  void Act() {
    if (HasFailure() || --left_ < 0) return;
    Do(Any(36));
    const bool ready = !room_->draining && !room_->items.empty();
    EXPECT_EQ(room_->inbox->Wait(std::chrono::milliseconds(0)), ready);
    pollfd descriptor{Any(20) == 0 ? room_->inbox->fd() : -1, POLLIN, 0};
    EXPECT_EQ(poll(&descriptor, 1, 0), descriptor.fd >= 0 && ready);
    EXPECT_EQ(Count(TakeLog(), "(queue.h"), std::exchange(lines_, 0));
  }

  void Do(int what) {
    const auto room = room_;
    if (what < 11) return Publish();
    if (what < 15) {
      room->items.emplace_back(&tasks_, ++number_);
      return room->inbox->Post([=, number = number_] { Ran(*room, tasks_, number); });
    }
    if (what < 19) return Drain(room);
    if (what < 25 && !queue_.empty()) return Drain(std::shared_ptr(queue_.front()));
    if (what < 34) return readers_.size() < 5 ? Build() : Destroy();
    what == 34 ? Flood() : Replace();
  }

  void Publish() {
    ++number_;
    for (const auto& [reader, handle] : readers_) {
      auto& room = *reader->room;
      if (!room.open) continue;
      room.items.emplace_back(reader.get(), number_);
      if (Waiting(room, *reader) > reader->keep) {
        room.items.erase(std::find_if(room.items.begin(), room.items.end(), Of(*reader)));
        if (reader->keep > 1) lines_ += reader->lost++ == 0;
      }
      Post(reader->room);
    }
    Message::copies = 0;
    zorvix::Publisher(kTopic).Publish(Message(number_));
    EXPECT_EQ(Message::copies, 1 + readers_.size());
  }

  // One task stands in the queue while anything waits.
  void Post(const std::shared_ptr<Room>& room) {
    if (room->inbox || room->draining || room->items.empty()) return;
    if (std::find(queue_.begin(), queue_.end(), room) == queue_.end()) queue_.push_back(room);
  }

  void Ran(Room& room, Reader& reader, int number) {
    ASSERT_TRUE(room.draining && number <= room.end && !room.items.empty() &&
                room.items.front() == Item(&reader, number));
    room.items.pop_front();
    ++room.ran;
    if (Waiting(room, reader) == 0) lines_ += std::exchange(reader.lost, 0) > 0;
    for (int acts = Any(3); acts > 0; --acts) Act();
    if (Any(12) == 0) throw 0;
    if (Any(12) > 0) return;
    ++lines_;
    throw std::runtime_error("bad luck");
  }

  // After what was thrown, a queued subscriber's messages wait for the next one.
  void Drain(const std::shared_ptr<Room>& room) {
    const bool nested = std::exchange(room->draining, true);
    if (!nested) room->end = number_, room->ran = 0;
    if (!room->inbox) queue_.pop_front();
    try {
      const auto ran = room->inbox ? room->inbox->Drain() : ZorvixRunOneceStep() ? room->ran : 0;
      EXPECT_EQ(ran, nested ? 0 : room->ran);
      EXPECT_TRUE(nested || room->items.empty() || room->items.front().second > room->end);
      room->draining = nested;
      Post(room);
    } catch (int) {
      room->draining = nested;
    }
  }

  void Build() {
    const KeepLast keep{1 + random_() % 3};
    const auto room = Any(2) == 0 ? std::make_shared<Room>() : room_;
    const auto reader = std::make_shared<Reader>(Reader{static_cast<int>(keep.depth), room});
    const auto run = [=](const Message& message) { Ran(*room, *reader, message.number); };
    readers_.emplace_back(
        reader, room->inbox ? zorvix::Subscriber(kTopic, run, *room->inbox, keep)
                            : zorvix::Subscriber(kTopic, run, zorvix::Delivery::Queued, keep));
  }

  void Destroy() {
    const auto place = readers_.begin() + Any(readers_.size());
    auto& items = place->first->room->items;
    items.erase(std::remove_if(items.begin(), items.end(), Of(*place->first)), items.end());
    readers_.erase(place);
  }

  void Replace() {
    const auto old = std::exchange(room_, std::make_shared<Room>());
    room_->inbox.emplace();
    old->open = false;
    old->items.clear();
    old->inbox.reset();
  }

  // Others' tasks push out what the queue holds.
  void Flood() {
    for (int i = 0; i < 100; ++i) ZorvixPublish(others_, i);
    queue_.clear();
    ZorvixSpinOnce();
  }

  std::mt19937 random_{Seed()};
  std::shared_ptr<Room> room_ = std::make_shared<Room>();
  std::vector<std::pair<std::shared_ptr<Reader>, zorvix::Subscriber<Message>>> readers_;
  std::deque<std::shared_ptr<Room>> queue_;  // the bridge's
  Endpoint& others_ = Subscribed("others", BridgeType::Async, {Subscriber(ignore)});
  Reader tasks_{};         // of all inboxes
  std::size_t lines_ = 0;  // that are to be logged
  int number_ = 0, left_ = 20000;
};

TEST_F(Inboxes, DoWhatTheModelSays) {
  Replace();
  while (left_ > 0 && !HasFailure()) Act();
  readers_.clear();
  room_->inbox.reset();  // whose tasks hold the room
  ZorvixSpinOnce();
}

TEST_F(Bridge, NothingIsLostOrStuckOrOutOfItsPublishersOrder) {
  constexpr int kPublishers = 3, kCount = 600;
  for (const bool queued : {false, true}) {
    SCOPED_TRACE(queued);
    std::optional<Inbox> inbox(std::in_place);
    const auto subscribe = [&](auto callable, std::size_t keep) {
      return queued ? zorvix::Subscriber(kTopic, callable, zorvix::Delivery::Queued, KeepLast{keep})
                    : zorvix::Subscriber(kTopic, callable, *inbox, KeepLast{keep});
    };
    EXPECT_THROW(subscribe(ignore, 0), std::invalid_argument);
    std::atomic<int> taken[2] = {};  // by one who keeps all, and one who keeps two
    std::atomic<int> last[2][kPublishers] = {};
    const auto take = [&](int reader) {
      return [&, reader](const Message& message) {
        if (taken[reader]++ == 0) Log("first");
        auto& before = last[reader][message.number % kPublishers];
        EXPECT_LT(before.exchange(message.number), message.number);
      };
    };
    const auto all = subscribe(take(0), kCount), few = subscribe(take(1), 2);
    const zorvix::Subscriber gone(kGone, ignore, *inbox, KeepLast{1});
    inbox->fd();
    HoldLog("first");
    const auto publish = [&](int first) {
      for (int number = first; number <= kCount; number += kPublishers) {
        zorvix::Publisher(kTopic).Publish(Message(number));
        // Now and then until it has run, which it never does if a wake-up was lost.
        while (number % 5 == 0 && last[0][number % kPublishers] < number) std::this_thread::yield();
      }
    };
    {
      const zorvix::InboxThread thread(*inbox);
      const zorvix::Workers workers(3);
      std::future<void> publishers[kPublishers];
      for (int i : {0, 1, 2}) publishers[i] = std::async(std::launch::async, publish, i + 1);
      WaitForLog("first", queued ? 2 : 1);  // queued subscribers run side by side
      HoldLog("");
      for (std::atomic<int> round{0}; taken[0] < kCount; ++round) {  // others come and go
        const auto run = [&round, its = round.load()](auto&) {
          for (int i = 0; i < 20; ++i, std::this_thread::yield()) EXPECT_EQ(round, its);
        };
        const auto comes_and_goes = subscribe(run, 1);
        std::this_thread::yield();
      }
    }
    inbox->Post([message = Message(0)] {});
    inbox.reset();
    const auto log = TakeLog();
    for (const auto& line : log) {
      if (Count({line}, "caught up") > 0) taken[1] += std::stoi(line.substr(line.rfind(' ')));
    }
    EXPECT_EQ(taken[1], kCount) << "with those lost";
    EXPECT_EQ(Count(log, "subscriber loses its oldest messages, name: t, kept: 2"),
              Count(log, "subscriber has caught up, name: t, lost: "));
  }
}

TEST_F(Bridge, InboxThreadRunsWhatWaitsAndDiesOfItsOwnCallable) {
  Inbox inbox;
  std::optional<zorvix::InboxThread> thread;
  for (int i = 0; i < 100; ++i) {
    thread.emplace(inbox);
    inbox.Post([] { throw std::runtime_error("bad luck"); });
    thread.reset();
    EXPECT_EQ(Count(TakeLog(), "callable failed! error: bad luck, name: task of an inbox"), 1u);
  }
  const auto die = [&] {
    HoldLog("E(inbox.h");
    thread.emplace(inbox);
    inbox.Post([&] { thread.reset(); });
    WaitForLog("E(inbox.h");
    std::_Exit(7);
  };
  EXPECT_EXIT(die(), testing::ExitedWithCode(7), "");
}

}  // namespace
