// What inboxes and queued subscribers promise: a walk against a model, and laws under threads.
#include <poll.h>
#include <sys/resource.h>

#include <csignal>
#include <random>

#include "bridge_test.h"

namespace {

using std::chrono::milliseconds;
using zorvix::Delivery;
using zorvix::Inbox;
using zorvix::InboxThread;
using zorvix::Keep;

struct Message {
  explicit Message(int its) : number(its) { ++live; }
  Message(const Message& other) : number(other.number) { ++live, ++copies; }
  Message(Message&& other) noexcept : number(other.number) { ++live; }
  ~Message() { --live; }
  int number;
  static inline std::atomic<int> live{0}, copies{0};
};
const zorvix::Topic<Message> kTopics[] = {{"a"}, {"b"}};

// One thread does at random, also inside callables, what users may do, and a model says what must
// come of it: what runs, is lost, waits, can be seen at a descriptor, stands in the queue and in
// the log.
class Walk {
 public:
  explicit Walk(unsigned seed) : random_(seed) {}
  ~Walk() {
    for (const auto& reader : readers_) reader->handle.reset();
    rooms_[0] = rooms_[1] = nullptr;
    ZorvixSpinOnce();
    EXPECT_EQ(Message::live, 0);
    TakeLog();
  }

  void Act() {
    const auto room = rooms_[Any(2)];
    switch (Any(9)) {
      case 0:
      case 1:
        Publish(kTopics[Any(2)]);
        break;
      case 2:
        room->items.push_back({&room->tasks, ++number_});
        room->inbox->Post([=, number = number_] { Ran(*room, room->tasks, number); });
        break;
      case 3:
        Drain(*room, [=] { return room->inbox->Drain(); });
        break;
      case 4:
        Step();
        break;
      case 5:
      case 6:
        readers_.size() < 5 ? Build(room) : Destroy();
        break;
      case 7:
        if (Any(8) == 0) Flood();
        break;
      case 8:
        if (Any(4) == 0) Replace(Any(2));
        if (room->inbox && Any(2) == 0) room->fd = room->inbox->fd();
    }
    Check();
  }

 private:
  struct Room;
  struct Reader {
    std::string name;
    std::size_t keep;
    std::shared_ptr<Room> room;
    std::optional<zorvix::Subscriber<Message>> handle = {};
    std::size_t lost = 0;
  };
  struct Item {
    const Reader* reader;
    int number;
  };
  struct Room {  // of an inbox, or of a queued subscriber
    std::unique_ptr<Inbox> inbox;
    std::deque<Item> items = {};
    bool open = true, draining = false, posted = false;
    int end = 0, fd = -1;
    std::size_t ran = 0;
    Reader tasks = {"task of an inbox", 0, nullptr};
  };

  int Any(unsigned below) { return static_cast<int>(random_() % below); }

  static std::size_t Waiting(const Room& room, const Reader& reader) {
    const auto its = [&](const Item& item) { return item.reader == &reader; };
    return static_cast<std::size_t>(std::count_if(room.items.begin(), room.items.end(), its));
  }
  static void EraseFirst(Room& room, const Reader& reader) {
    const auto its = [&](const Item& item) { return item.reader == &reader; };
    room.items.erase(std::find_if(room.items.begin(), room.items.end(), its));
  }

  void PostTask(const std::shared_ptr<Room>& room) {
    if (room->inbox || room->draining || room->items.empty()) return;
    if (!std::exchange(room->posted, true)) queue_.push_back(room);
  }

  void Publish(const zorvix::Topic<Message>& topic) {
    const int before = Message::copies;
    int copies = 0;
    ++number_;
    for (const auto& reader : readers_) {
      if (reader->name != topic.name) continue;
      ++copies;
      auto& room = *reader->room;
      if (!room.open) continue;
      room.items.push_back({reader.get(), number_});
      if (Waiting(room, *reader) > reader->keep) {
        EraseFirst(room, *reader);
        if (reader->keep > 1 && reader->lost++ == 0) {
          expected_.push_back("W: a subscriber loses its oldest messages, name: " + topic.name +
                              ", kept: " + std::to_string(reader->keep));
        }
      }
      PostTask(reader->room);
    }
    zorvix::Publisher(topic).Publish(Message(number_));
    EXPECT_LE(Message::copies - before, copies);
  }

  void Ran(Room& room, Reader& reader, int number) {
    ASSERT_TRUE(room.draining && !room.items.empty() && room.items.front().reader == &reader &&
                room.items.front().number == number && number <= room.end);
    room.items.pop_front();
    ++room.ran;
    if (reader.lost != 0 && Waiting(room, reader) == 0) {
      expected_.push_back("I: a subscriber has caught up, name: " + reader.name +
                          ", lost: " + std::to_string(std::exchange(reader.lost, 0)));
    }
    ++depth_;
    for (int acts = depth_ < 4 ? Any(3) : 0; acts > 0; --acts) Act();
    --depth_;
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
      const std::size_t ran = drain();
      EXPECT_EQ(ran, nested ? 0 : room.ran);
      EXPECT_TRUE(nested || room.items.empty() || room.items.front().number > room.end);
      returned = true;
    } catch (int) {
    }
    room.draining = nested;
    return returned;
  }

  void Step() {
    if (queue_.empty()) {
      EXPECT_FALSE(ZorvixRunOneceStep());
      return;
    }
    const auto room = queue_.front();
    queue_.pop_front();
    expected_.push_back("I: event queue size: " + std::to_string(queue_.size()));
    const bool returned = Drain(*room, [&] { return ZorvixRunOneceStep(), room->ran; });
    room->posted = false;
    if (returned) PostTask(room);
  }

  void Build(const std::shared_ptr<Room>& inbox) {
    const auto& topic = kTopics[Any(2)];
    const Keep keep{static_cast<std::size_t>(1 + Any(3))};
    const bool queued = Any(2) == 0;
    const auto room = queued ? std::make_shared<Room>() : inbox;
    const auto reader = std::make_shared<Reader>(Reader{topic.name, keep.last, room});
    const auto run = [=](const Message& message) { Ran(*room, *reader, message.number); };
    queued ? reader->handle.emplace(topic, run, Delivery::Queued, keep)
           : reader->handle.emplace(topic, run, *room->inbox, keep);
    readers_.push_back(reader);
  }

  void Destroy() {
    const auto place = readers_.begin() + Any(5);
    const auto reader = *place;
    readers_.erase(place);
    while (Waiting(*reader->room, *reader) > 0) EraseFirst(*reader->room, *reader);
    reader->handle.reset();
  }

  void Replace(int place) {
    const auto old = std::exchange(rooms_[place], MakeRoom());
    old->open = false;
    old->items.clear();
    old->inbox.reset();
  }

  // Others' tasks fill the bridge's queue.
  void Flood() {
    const zorvix::Topic<int, BridgeType::Async> topic{"flood"};
    const zorvix::Subscriber others(topic, [](int) {});
    for (int i = 0; i < 100; ++i) zorvix::Publisher(topic).Publish(i);
    expected_.insert(expected_.end(), queue_.size(), "W: event queue overflow, size: 100");
    for (int i = 99; i >= 0; --i) {
      ZorvixRunOneceStep();
      expected_.push_back("I: event queue size: " + std::to_string(i));
    }
    for (const auto& room : std::exchange(queue_, {})) room->posted = false;
  }

  void Check() {
    for (const auto& room : rooms_) {
      const bool ready = !room->draining && !room->items.empty();
      EXPECT_EQ(room->inbox->Wait(milliseconds(0)), ready);
      pollfd descriptor{room->fd, POLLIN, 0};
      EXPECT_TRUE(room->fd < 0 || poll(&descriptor, 1, 0) == ready);
    }
    Lines log;
    for (auto& line : TakeLog()) {
      if (line[1] != '(' && Count({line}, "event queue") == 0) continue;
      if (line[1] == '(') line.erase(1, line.find(')'));
      log.push_back(line);
    }
    EXPECT_EQ(log, std::exchange(expected_, {}));
    std::size_t waiting = 0;
    for (const auto& reader : readers_) waiting += Waiting(*reader->room, *reader);
    EXPECT_TRUE(depth_ > 0 || Message::live == static_cast<int>(waiting));
  }

  static std::shared_ptr<Room> MakeRoom() {
    return std::make_shared<Room>(Room{std::make_unique<Inbox>()});
  }

  std::mt19937 random_;
  std::shared_ptr<Room> rooms_[2] = {MakeRoom(), MakeRoom()};
  std::vector<std::shared_ptr<Reader>> readers_;  // in the order of their registration
  std::deque<std::shared_ptr<Room>> queue_;       // the bridge's
  Lines expected_;
  int number_ = 0, depth_ = 0;
};

TEST_F(Bridge, InboxesDoWhatTheModelSays) {
  const char* const given = std::getenv("ZORVIX_SEED");
  unsigned seed = given ? static_cast<unsigned>(std::stoul(given)) : std::random_device()();
  for (const unsigned end = seed + 300; seed != end && !HasFailure(); ++seed) {
    SCOPED_TRACE("ZORVIX_SEED=" + std::to_string(seed));
    Walk walk(seed);
    for (int i = 0; i < 100 && !HasFailure(); ++i) walk.Act();
  }
}

// Threads that drain when the descriptor is readable, or all the time.
struct Drainers {
  Drainers(Inbox& its, int count, int timeout) : inbox(its) {
    for (; count > 0; --count) {
      threads.push_back(std::async(std::launch::async, [=] {
        for (pollfd ready{inbox.fd(), POLLIN, 0}; !over; inbox.Drain()) poll(&ready, 1, timeout);
      }));
    }
  }
  ~Drainers() {
    inbox.Post([this] { over = true; });
    for (auto& thread : threads) thread.get();
  }
  Inbox& inbox;
  std::atomic<bool> over{false};
  std::vector<std::future<void>> threads;
};

TEST_F(Bridge, NothingIsLostOrStuckOrOutOfItsPublishersOrder) {
  constexpr int kPublishers = 3, kCount = 300;
  struct Row {
    const char* name;
    std::function<std::shared_ptr<void>(Inbox&)> start;
    bool queued;
  };
  for (const auto& [name, start, queued] :
       {Row{"one that polls", [](auto& in) { return std::make_shared<Drainers>(in, 1, -1); },
            false},
        Row{"two at a time", [](auto& in) { return std::make_shared<Drainers>(in, 2, 0); }, false},
        Row{"its thread", [](auto& in) { return std::make_shared<InboxThread>(in); }, false},
        Row{"queued", [](auto&) { return std::make_shared<zorvix::Workers>(3); }, true}}) {
    SCOPED_TRACE(name);
    Inbox inbox;
    const auto subscribe = [&, to_queue = queued](auto callable, std::size_t last) {
      return to_queue ? zorvix::Subscriber(kTopics[0], callable, Delivery::Queued, Keep{last})
                      : zorvix::Subscriber(kTopics[0], callable, inbox, Keep{last});
    };
    struct Reader {
      int taken = 0;
      std::atomic<int> last[kPublishers] = {};
    } all, few;
    std::atomic<bool> runs[2] = {};
    const auto take = [&, one = queued ? 1 : 0](Reader& reader, const Message& message) {
      auto& running = runs[&reader == &few ? one : 0];  // of an inbox or of a subscriber
      EXPECT_FALSE(running.exchange(true));
      EXPECT_LT(reader.last[message.number / kCount].exchange(message.number % kCount + 1),
                message.number % kCount + 1);
      ++reader.taken;
      running = false;
    };
    auto drains = start(inbox);
    {
      const auto takes_all =
          subscribe([&](const Message& message) { take(all, message); }, kPublishers * kCount);
      const auto takes_few = subscribe([&](const Message& message) { take(few, message); }, 2);
      std::atomic<int> left{kPublishers};
      std::vector<std::future<void>> publishers;
      for (int first = 0; first < kPublishers * kCount; first += kCount) {
        publishers.push_back(std::async(std::launch::async, [&, first] {
          for (int i = 0; i < kCount; ++i) {
            zorvix::Publisher(kTopics[0]).Publish(Message(first + i));
            while (i % 5 == 4 && all.last[first / kCount] <= i) std::this_thread::yield();
          }
          --left;
        }));
      }
      for (std::size_t last = 1; left > 0; last = 3 - last) {
        const auto over = std::make_shared<std::atomic<bool>>(false);
        std::optional comes_and_goes(subscribe(
            [over](auto&) {
              EXPECT_FALSE(*over);
              std::this_thread::yield();
              EXPECT_FALSE(*over);
            },
            1));
        std::this_thread::yield();
        comes_and_goes.reset();
        *over = true;
      }
      for (auto& publisher : publishers) publisher.get();
      drains.reset();
    }
    EXPECT_EQ(inbox.Drain(), 0u);
    EXPECT_EQ(all.taken, kPublishers * kCount);
    const auto log = TakeLog();
    for (const auto& line : log) {
      if (Count({line}, "caught up") > 0) few.taken += std::stoi(line.substr(line.rfind(' ')));
    }
    EXPECT_EQ(few.taken, kPublishers * kCount);
    EXPECT_EQ(Count(log, "loses its oldest"), Count(log, "caught up"));
    EXPECT_EQ(Count(log, "overflow"), 0u);
    EXPECT_EQ(Message::live, 0);
  }
}

TEST_F(Bridge, QueuedSubscribersRunSideBySide) {
  const auto log = [](auto&) { Log("runs"); };
  const zorvix::Subscriber one(kTopics[0], log, Delivery::Queued);
  const zorvix::Subscriber two(kTopics[0], log, Delivery::Queued);
  const zorvix::Workers workers(2);
  HoldLog("runs");
  zorvix::Publisher(kTopics[0]).Publish(Message(1));
  WaitForLog("runs", 2);
  HoldLog("");
}

TEST_F(Bridge, MessagesAreDestroyedUnderNoLock) {
  using Pointer = std::shared_ptr<void>;
  const zorvix::Topic<Pointer> topic{"p"};
  for (const auto delivery : {Delivery::AtOnce, Delivery::Queued}) {
    std::optional<Inbox> inbox;
    std::optional<zorvix::Subscriber<Pointer>> subscriber;
    int ended = 0;
    const auto publish = [&] {
      zorvix::Publisher(topic).Publish(Pointer(nullptr, [&](void*) {
        ++ended;
        zorvix::Publisher(topic).Publish(Pointer());
        if (inbox) inbox->Post([] {});
      }));
    };
    for (const auto& end : std::initializer_list<std::function<void()>>{
             publish, [&] { inbox->Drain(), ZorvixSpinOnce(); }, [&] { subscriber.reset(); },
             [&] { inbox.reset(), subscriber.reset(); }}) {
      inbox.emplace();
      const auto ignore = [](auto&) {};
      delivery == Delivery::Queued ? subscriber.emplace(topic, ignore, delivery, Keep{1})
                                   : subscriber.emplace(topic, ignore, *inbox, Keep{1});
      ended = 0;
      publish();
      end();
      EXPECT_GE(ended, 1);
    }
  }
}

TEST_F(Bridge, InboxRefusesWhatItCannotDo) {
  Inbox inbox;
  const auto ignore = [](auto&) {};
  EXPECT_THROW(zorvix::Subscriber(kTopics[0], ignore, inbox, Keep{0}), std::invalid_argument);
  EXPECT_THROW(zorvix::Subscriber(kTopics[0], ignore, Delivery::Queued, Keep{0}),
               std::invalid_argument);
  EXPECT_FALSE(zorvix::Publisher(kTopics[0]).Publish(Message(1)));
  inbox.Post([&] {  // while another thread drains
    EXPECT_EQ(std::async(std::launch::async, [&] { return inbox.Drain(); }).get(), 0u);
  });
  EXPECT_EQ(inbox.Drain(), 1u);
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  const rlimit none{0, files.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_THROW(inbox.fd(), std::system_error);
  setrlimit(RLIMIT_NOFILE, &files);
  EXPECT_GE(inbox.fd(), 0);
}

TEST_F(Bridge, InboxThreadRunsWhatWaitsAndDiesOfItsOwnCallable) {
  for (int i = 0; i < 100; ++i) {
    Inbox inbox;
    int ran = 0;
    std::optional<InboxThread> thread(inbox);
    inbox.Post([&] { ++ran; });
    thread.reset();
    EXPECT_EQ(ran, 1);
  }
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto die = [] {
    Inbox inbox;
    std::optional<InboxThread> thread(inbox);
    HoldLog("E(inbox.h");
    inbox.Post([&] { thread.reset(); });
    WaitForLog("E(inbox.h");
    std::fputs("said so", stderr);
    HoldLog("");
    inbox.Wait(milliseconds(-1));
  };
  EXPECT_EXIT(die(), testing::KilledBySignal(SIGABRT), "said so");
}

}  // namespace
