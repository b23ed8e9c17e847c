// What inboxes and queued subscribers promise: a walk against a model, and laws under threads.
#include <poll.h>

#include <random>

#include "bridge_test.h"

namespace {

using zorvix::Delivery;
using zorvix::Inbox;
using zorvix::InboxThread;
using zorvix::Keep;

const zorvix::Topic<int> kEnded{"ended"};
struct Message {
  explicit Message(int its) : number(its) { ++live; }
  Message(const Message& other) : number(other.number) { ++live, ++copies; }
  Message(Message&& other) noexcept : number(other.number) { ++live; }
  ~Message() {
    --live;
    if (publishes) zorvix::Publisher(kEnded).Publish(number);
  }
  int number;
  static inline std::atomic<int> live{0}, copies{0};
  static inline std::atomic<bool> publishes{false};
};
const zorvix::Topic<Message> kTopics[] = {{"a"}, {"b"}};
const auto ignore = [](auto&) {};

// One thread does at random what users may do, also inside callables. A model says what must come
// of it: what runs, waits and is lost, what a descriptor, the bridge's queue and the log show.
class Walk {
 public:
  explicit Walk(unsigned seed) : random_(seed) {
    while (left_ > 0) Act();
    while (!readers_.empty()) Destroy();
    Replace();
  }

 private:
  struct Reader;
  using Item = std::pair<const Reader*, int>;
  struct Room {  // an inbox, or what a queued subscriber has instead
    explicit Room(bool of_inbox) : inbox(of_inbox ? std::make_unique<Inbox>() : nullptr) {}
    std::unique_ptr<Inbox> inbox;
    std::deque<Item> items;
    bool open = true, draining = false;
    int end = 0, ran = 0, fd = -1;
  };
  struct Reader {
    std::string name;
    int keep = 0;
    std::shared_ptr<Room> room = {};
    int lost = 0;
    std::optional<zorvix::Subscriber<Message>> handle = {};
  };

  int Any(std::size_t below) { return static_cast<int>(random_() % below); }

  static auto Of(const Reader& reader) {
    return [&](const Item& item) { return item.first == &reader; };
  }
  static auto Waiting(const Room& room, const Reader& reader) {
    return std::count_if(room.items.begin(), room.items.end(), Of(reader));
  }

  void Act() {
    if (testing::Test::HasFailure()) left_ = 0;
    if (--left_ < 0) return;
    Do(Any(18));
    const bool ready = !room_->draining && !room_->items.empty();
    if (Any(20) == 0) room_->fd = room_->inbox->fd();
    pollfd descriptor{room_->fd, POLLIN, 0};
    EXPECT_EQ(room_->inbox->Wait(std::chrono::milliseconds(0)), ready);
    EXPECT_TRUE(room_->fd < 0 || poll(&descriptor, 1, 0) == ready);
    Lines log;
    for (auto& line : TakeLog()) {
      if (line[1] == '(') log.push_back(line.erase(1, line.find(')')));
    }
    EXPECT_EQ(log, std::exchange(expected_, {}));
  }

  void Do(int what) {
    const auto room = room_;
    if (what < 5) return Publish(kTopics[what % 2]);
    if (what < 7) {
      room->items.emplace_back(&tasks_, ++number_);
      return room->inbox->Post([=, number = number_] { Ran(*room, tasks_, number); });
    }
    if (what < 9) return void(Drain(*room, [&] { return room->inbox->Drain(); }));
    if (what < 12) return Step();
    if (what < 16) return readers_.size() < 5 ? Build() : Destroy();
    if (Any(4) == 0) what == 16 ? Flood() : Replace();
  }

  void Publish(const zorvix::Topic<Message>& topic) {
    ++number_;
    for (const auto& reader : readers_) {
      auto& room = *reader->room;
      if (reader->name != topic.name || !room.open) continue;
      room.items.emplace_back(reader.get(), number_);
      if (Waiting(room, *reader) > reader->keep) {
        room.items.erase(std::find_if(room.items.begin(), room.items.end(), Of(*reader)));
        if (reader->keep > 1 && reader->lost++ == 0) {
          expected_.push_back("W: a subscriber loses its oldest messages, name: " + topic.name +
                              ", kept: " + std::to_string(reader->keep));
        }
      }
      Post(reader->room);
    }
    zorvix::Publisher(topic).Publish(Message(number_));
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
    if (reader.lost > 0 && Waiting(room, reader) == 0) {
      expected_.push_back("I: a subscriber has caught up, name: " + reader.name +
                          ", lost: " + std::to_string(std::exchange(reader.lost, 0)));
    }
    for (int acts = Any(3); acts > 0; --acts) Act();
    const int end = Any(12);
    if (end == 0) throw 0;
    if (end > 1) return;
    expected_.push_back("E: callable failed! error: bad luck, name: " + reader.name);
    throw std::runtime_error("bad luck");
  }

  // Returns false if what a callable threw left the drain.
  template <typename Function>
  bool Drain(Room& room, Function drain) {
    const bool nested = std::exchange(room.draining, true);
    if (!nested) room.end = number_, room.ran = 0;
    bool returned = false;
    try {
      const auto ran = static_cast<int>(drain());
      EXPECT_EQ(ran, nested ? 0 : room.ran);
      EXPECT_TRUE(nested || room.items.empty() || room.items.front().second > room.end);
      returned = true;
    } catch (int) {
    }
    room.draining = nested;
    return returned;
  }

  void Step() {
    const bool any = !queue_.empty();
    const auto room = any ? queue_.front() : std::make_shared<Room>(false);
    if (any) queue_.pop_front();
    const auto step = [&] {
      EXPECT_EQ(ZorvixRunOneceStep(), any);
      return room->ran;
    };
    if (Drain(*room, step)) Post(room);
  }

  void Build() {
    const auto& topic = kTopics[Any(2)];
    const Keep keep{1 + random_() % 3};
    const auto room = Any(2) == 0 ? std::make_shared<Room>(false) : room_;
    const auto reader =
        std::make_shared<Reader>(Reader{topic.name, static_cast<int>(keep.last), room});
    const auto run = [=](const Message& message) { Ran(*room, *reader, message.number); };
    room->inbox ? reader->handle.emplace(topic, run, *room->inbox, keep)
                : reader->handle.emplace(topic, run, Delivery::Queued, keep);
    readers_.push_back(reader);
  }

  void Destroy() {
    const auto place = readers_.begin() + Any(readers_.size());
    const auto reader = *place;
    readers_.erase(place);
    auto& items = reader->room->items;
    items.erase(std::remove_if(items.begin(), items.end(), Of(*reader)), items.end());
    reader->handle.reset();
  }

  void Replace() {
    const auto old = std::exchange(room_, std::make_shared<Room>(true));
    old->open = false;
    old->items.clear();
    old->inbox.reset();
  }

  // Others' tasks push out what the queue holds.
  void Flood() {
    const zorvix::Topic<int, BridgeType::Async> topic{"flood"};
    const zorvix::Subscriber others(topic, ignore);
    for (int i = 0; i < 100; ++i) zorvix::Publisher(topic).Publish(i);
    queue_.clear();
    ZorvixSpinOnce();
  }

  std::mt19937 random_;
  std::shared_ptr<Room> room_ = std::make_shared<Room>(true);
  std::vector<std::shared_ptr<Reader>> readers_;  // in the order of their registration
  std::deque<std::shared_ptr<Room>> queue_;       // the bridge's
  Reader tasks_{"task of an inbox"};
  Lines expected_;
  int number_ = 0, left_ = 100;
};

TEST_F(Bridge, InboxesDoWhatTheModelSays) {
  unsigned seed = Seed(std::random_device()());
  for (const unsigned end = seed + 200; seed != end && !HasFailure(); ++seed) {
    SCOPED_TRACE("ZORVIX_SEED=" + std::to_string(seed));
    const Walk walk(seed);
    ZorvixSpinOnce();
    TakeLog();
    EXPECT_EQ(Message::live, 0);
  }
}

TEST_F(Bridge, NothingIsLostOrStuckOrOutOfItsPublishersOrder) {
  constexpr int kPublishers = 3, kCount = 200;
  for (const bool queued : {false, true}) {
    SCOPED_TRACE(queued);
    std::optional<Inbox> inbox(std::in_place);
    const auto subscribe = [&](auto callable, std::size_t last) {
      return queued ? zorvix::Subscriber(kTopics[0], callable, Delivery::Queued, Keep{last})
                    : zorvix::Subscriber(kTopics[0], callable, *inbox, Keep{last});
    };
    int taken[2] = {};  // by one who keeps all, and one who keeps two
    std::atomic<int> last[2][kPublishers] = {};
    std::atomic<bool> runs[2] = {};
    const auto take = [&](int reader) {
      return [&, reader](const Message& message) {
        auto& running = runs[queued ? reader : 0];  // one at a time for a subscriber, or an inbox
        EXPECT_FALSE(running.exchange(true));
        const int count = message.number % kCount + 1;
        EXPECT_LT(last[reader][message.number / kCount].exchange(count), count);
        ++taken[reader];
        running = false;
      };
    };
    const auto all = subscribe(take(0), kPublishers * kCount), few = subscribe(take(1), 2);
    const zorvix::Subscriber ended(kEnded, ignore, *inbox, Keep{1});
    Message::publishes = true;  // no lock is held where messages are destroyed
    EXPECT_GE(inbox->fd(), 0);
    std::optional<InboxThread> thread(*inbox);
    std::optional<zorvix::Workers> workers(3);
    std::atomic<int> left{kPublishers};
    std::vector<std::future<void>> publishers;
    for (int publisher = 0; publisher < kPublishers; ++publisher) {
      publishers.push_back(std::async(std::launch::async, [&, publisher] {
        for (int i = 0; i < kCount; ++i) {
          zorvix::Publisher(kTopics[0]).Publish(Message(kCount * publisher + i));
          while (i % 5 == 4 && last[0][publisher] <= i) std::this_thread::yield();  // not stuck
        }
        --left;
      }));
    }
    while (left > 0) {  // others come and go
      const auto over = std::make_shared<std::atomic<bool>>(false);
      const std::shared_ptr<void> at_the_end(nullptr, [over](void*) { *over = true; });
      const auto comes_and_goes = subscribe(
          [over](auto&) {
            for (int i = 0; i < 20; ++i, std::this_thread::yield()) EXPECT_FALSE(*over);
          },
          1);
      std::this_thread::yield();
    }
    for (auto& publisher : publishers) publisher.get();
    thread.reset();
    workers.reset();
    inbox->Post([message = Message(0)] {});
    inbox.reset();
    Message::publishes = false;
    const auto log = TakeLog();
    for (const auto& line : log) {
      if (Count({line}, "caught up") > 0) taken[1] += std::stoi(line.substr(line.rfind(' ')));
    }
    EXPECT_EQ(taken[0], kPublishers * kCount);
    EXPECT_EQ(taken[1], kPublishers * kCount) << "with those lost";
    EXPECT_EQ(Count(log, "loses its oldest"), Count(log, "caught up"));
    EXPECT_EQ(Count(log, "overflow"), 0u);
    EXPECT_EQ(Message::live, 0);
  }
}

TEST_F(Bridge, QueuedSubscribersRunSideBySide) {
  const auto log = [](auto&) { Log("runs"); };
  const zorvix::Subscriber one(kTopics[0], log, Delivery::Queued);
  const zorvix::Subscriber two(kTopics[0], log, Delivery::Queued);
  EXPECT_THROW(zorvix::Subscriber none(kTopics[0], log, Delivery::Queued, Keep{0}),
               std::invalid_argument);
  const zorvix::Workers workers(2);
  HoldLog("runs");
  Message::copies = 0;
  zorvix::Publisher(kTopics[0]).Publish(Message(1));
  WaitForLog("runs", 2);
  EXPECT_EQ(Message::copies, 2);
  HoldLog("");
}

TEST_F(Bridge, InboxThreadRunsWhatWaitsAndDiesOfItsOwnCallable) {
  for (int i = 0, ran = 0; i < 100; ++i) {
    Inbox inbox;
    std::optional<InboxThread> thread(inbox);
    inbox.Post([&] { ++ran; });
    thread.reset();
    EXPECT_EQ(ran, i + 1);
  }
  const auto die = [] {
    Inbox inbox;
    std::optional<InboxThread> thread(inbox);
    HoldLog("E(inbox.h");
    inbox.Post([&] { thread.reset(); });
    WaitForLog("E(inbox.h");
    std::_Exit(7);
  };
  EXPECT_EXIT(die(), testing::ExitedWithCode(7), "");
}

}  // namespace
