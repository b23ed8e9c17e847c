// What inboxes and queued subscribers promise beyond the walk: fairness, and laws under threads.
#include <sys/prctl.h>

#include <list>

#include "bridge_test.h"
#include "threads.h"

namespace {

using std::chrono::milliseconds;
using zorvix::Delivery;
using zorvix::Inbox;
using zorvix::KeepAll;
using zorvix::KeepLast;

const zorvix::Topic<int> kTopic{"t"};
const zorvix::Topic<int> kOther{"other"};
const auto ignore = [](auto&) {};

enum class Way { kDirect, kInbox, kQueued };

class Subscribers : public Bridge, public testing::WithParamInterface<Way> {
 protected:
  template <typename Callable>
  zorvix::Subscriber<int> Subscribe(Callable callable, KeepLast keep = KeepAll()) {
    if (GetParam() == Way::kInbox) return zorvix::Subscriber(kTopic, callable, inbox_, keep);
    const auto delivery = GetParam() == Way::kQueued ? Delivery::Queued : Delivery::Direct;
    return zorvix::Subscriber(kTopic, callable, delivery, keep);
  }
  void StartThreads() {
    thread_.emplace(inbox_);
    workers_.emplace(2);
  }
  void StopThreads() {
    thread_.reset();
    workers_.reset();
    ZorvixSpinOnce();  // workers that are stopped before they have begun run no task
  }

  Inbox inbox_;

 private:
  std::optional<zorvix::InboxThread> thread_;
  std::optional<zorvix::Workers> workers_;
};
class PendingMessages : public Subscribers {};

const auto kAll = testing::Values(Way::kDirect, Way::kInbox, Way::kQueued);
INSTANTIATE_TEST_SUITE_P(, Subscribers, kAll);
INSTANTIATE_TEST_SUITE_P(, PendingMessages, testing::Values(Way::kInbox, Way::kQueued));

// Numbers are not atomic: one message at a time, whichever thread drains.
TEST_P(PendingMessages, ComeInTheOrderOfTheirPublisherAndOneAtATime) {
  constexpr int kPublishers = 3;
  constexpr int kCount = 600;
  int taken = 0;
  int latest[kPublishers] = {};
  const auto subscriber = Subscribe([&](int number) {
    ++taken;
    EXPECT_LT(std::exchange(latest[number % kPublishers], number), number);
  });

  StartThreads();
  OnThreads(kPublishers, [](int publisher) {
    for (int i = 1; i <= kCount; ++i)
      zorvix::Publisher(kTopic).Publish(i * kPublishers + publisher);
  });
  StopThreads();

  EXPECT_EQ(taken, kPublishers * kCount);
}

// More than one publisher would hide it if a message did not wake the drain.
TEST_P(PendingMessages, WakeTheDrainEachTime) {
  std::atomic<int> latest{0};
  const auto subscriber = Subscribe([&](int number) { latest = number; });
  StartThreads();

  for (int number = 1; number <= 2000; ++number) {
    zorvix::Publisher(kTopic).Publish(number);
    ASSERT_TRUE(ComesTrue([&] { return latest == number; }));
  }
}

TEST_P(PendingMessages, AreTakenOrCountedAsDroppedOrDiscarded) {
  constexpr int kPublishers = 3;
  constexpr int kCount = 600;
  int sum = 0;
  std::optional subscriber(Subscribe([&](int) { ++sum; }, KeepLast{2}));
  for (int i = 0; i < kCount; ++i) zorvix::Publisher(kTopic).Publish(i);

  StartThreads();
  OnThreads(kPublishers - 1, [](int) {
    for (int i = 0; i < kCount; ++i) zorvix::Publisher(kTopic).Publish(i);
  });
  subscriber.reset();
  StopThreads();

  for (const auto& line : TakeLog()) {
    const bool counts = Count({line}, ", dropped: ") + Count({line}, ", discarded: ") > 0;
    if (counts) sum += std::stoi(line.substr(line.rfind(' ')));
  }
  EXPECT_EQ(sum, kPublishers * kCount);
}

// Publishes until it is destroyed.
struct Publishing {
  ~Publishing() { stop = true; }
  std::atomic<bool> stop{false};
  const std::future<void> thread = std::async(std::launch::async, [this] {
    const zorvix::Publisher publisher(kTopic, zorvix::Audience::Optional);
    while (!stop) publisher.Publish(0);
  });
};

// ThreadSanitizer sees an invocation that the destructor does not wait for, since `finished` is not
// atomic and the other flag orders nothing.
TEST_P(Subscribers, AreNotInvokedOnceDestroyedWhileOthersPublish) {
  std::atomic<int> round{0};
  const Publishing publishing;
  StartThreads();

  for (; round < 100; ++round) {
    std::atomic<bool> invoked{false};
    int finished = 0;
    std::optional subscriber(Subscribe(
        [&, own = round.load()](int) {
          invoked.store(true, std::memory_order_relaxed);
          for (int i = 0; i < 5; ++i) std::this_thread::yield();
          EXPECT_EQ(round, own);
          ++finished;
        },
        KeepLast{1}));
    EXPECT_TRUE(ComesTrue([&] { return invoked.load(std::memory_order_relaxed); }));
    subscriber.reset();
    EXPECT_GT(finished, 0);
  }
}

TEST_F(Bridge, NothingIsLeftInAnInboxForSubscribersThatAreDestroyed) {
  Inbox inbox;
  std::optional<Publishing> publishing(std::in_place);

  for (int i = 0; i < 300; ++i) {
    const zorvix::Subscriber subscriber(kTopic, ignore, inbox);
    EXPECT_TRUE(inbox.Wait(std::chrono::seconds(30)));
  }
  publishing.reset();

  EXPECT_EQ(inbox.Drain(), 0u);
}

// Sends a message to the inbox in which it was pending.
struct PublishesAtItsEnd {
  ~PublishesAtItsEnd() { zorvix::Publisher(kOther).Publish(0); }
};

// Hangs if a lock is held.
TEST_F(Bridge, MessagesAreDestroyedUnderNoLock) {
  const zorvix::Topic<PublishesAtItsEnd> topic{"t"};
  const zorvix::Publisher publisher(topic);
  std::optional<Inbox> inbox(std::in_place);
  const zorvix::Subscriber other(kOther, ignore, *inbox, KeepLast{1});
  const auto subscribe = [&] { return zorvix::Subscriber(topic, ignore, *inbox, KeepLast{1}); };
  std::optional subscriber(subscribe());

  publisher.Publish({});
  publisher.Publish({});  // drops one
  EXPECT_EQ(inbox->Drain(), 2u);
  publisher.Publish({});
  subscriber.reset();
  EXPECT_EQ(inbox->Drain(), 1u);
  subscriber.emplace(subscribe());
  publisher.Publish({});
  inbox->Drain();
  const auto destroy = [&, owned = PublishesAtItsEnd()](auto&) { subscriber.reset(); };
  subscriber.emplace(topic, destroy, *inbox);
  publisher.Publish({});
  EXPECT_EQ(inbox->Drain(), 2u);
  subscriber.emplace(subscribe());
  publisher.Publish({});
  inbox.reset();
}

// With a look at all pending messages for each subscriber, this would take longer than a test may.
TEST_F(Bridge, ManyPendingMessagesOfManySubscribersAreDiscardedInLinearTime) {
  for (const bool inbox_first : {true, false}) {
    std::optional<Inbox> inbox(std::in_place);
    std::vector<zorvix::Subscriber<int>> subscribers;
    for (int i = 0; i < 300; ++i) {  // the bridge copies the list of a topic for each subscriber
      const zorvix::Topic<int> topic{std::to_string(i)};
      for (int k = 0; k < 100; ++k) subscribers.emplace_back(topic, ignore, *inbox);
      for (int number = 0; number < 50; ++number) zorvix::Publisher(topic).Publish(number);
    }

    if (inbox_first) inbox.reset();
    subscribers.clear();

    EXPECT_EQ(Count(TakeLog(), "pending messages are discarded"), 30'000u);
  }
}

TEST_F(Bridge, EachWorkerMayInvokeAQueuedSubscriberWhileOthersAreBusy) {
  constexpr int kCount = 12;
  std::list<zorvix::Subscriber<int>> subscribers;
  for (int i = 0; i < kCount; ++i) {
    subscribers.emplace_back(
        kTopic, [](int) { Log("invoked"); }, Delivery::Queued);
  }
  HoldLog("invoked");

  const zorvix::Workers workers(kCount);
  zorvix::Publisher(kTopic).Publish(1);

  WaitForLog("invoked", kCount);
  HoldLog("");
}

// What is pending for the first one when its task begins, and what arrives meanwhile.
TEST_F(Bridge, QueuedSubscriberGetsItsTurnAfterAtMost64InvocationsOfAnother) {
  int sent_to_itself = 0;
  int invocations = 0;
  int invocations_before = -1;
  const zorvix::Publisher publisher(kTopic);
  const auto send_to_itself = [&](int) {
    ++invocations;
    if (sent_to_itself++ < 300) publisher.Publish(0);
  };
  const zorvix::Subscriber first(kTopic, send_to_itself, Delivery::Queued, KeepAll());
  const zorvix::Subscriber second(
      kOther, [&](int) { invocations_before = invocations; }, Delivery::Queued);
  for (int i = 0; i < 40; ++i) publisher.Publish(0);
  zorvix::Publisher(kOther).Publish(0);

  int tasks = 0;
  while (invocations_before < 0 && ZorvixRunOneceStep()) ++tasks;

  EXPECT_EQ(invocations_before, 64);
  EXPECT_EQ(tasks, 2);
  ZorvixSpinOnce();
  EXPECT_EQ(invocations, 340);
}

// Tasks of others fill the queue, more than once.
TEST_F(Bridge, QueuedSubscriberIsInvokedThoughTheFullQueueDropsItsTask) {
  auto& others = Subscribed("others", BridgeType::Async, {Subscriber(ignore)});
  bool is_invoked = false;
  const zorvix::Subscriber subscriber(
      kTopic, [&](int) { is_invoked = true; }, Delivery::Queued);
  zorvix::Publisher(kTopic).Publish(1);

  for (int i = 0; i < 220; ++i) ZorvixPublish(others, i);

  EXPECT_TRUE(ComesTrue([&] {
    ZorvixSpinOnce();
    return is_invoked;
  }));
}

TEST_F(Bridge, QueuedTaskMayOutliveAllQueuedSubscribers) {
  const auto fail = [](int) { ADD_FAILURE(); };
  std::optional subscriber(zorvix::Subscriber(kTopic, fail, Delivery::Queued));
  zorvix::Publisher(kTopic).Publish(1);
  subscriber.reset();
  int invocations = 0;
  const zorvix::Subscriber next(
      kTopic, [&](int) { ++invocations; }, Delivery::Queued);

  zorvix::Publisher(kTopic).Publish(2);
  ZorvixSpinOnce();

  EXPECT_EQ(invocations, 1);
}

TEST_F(Bridge, DepthOfNothingIsRefused) {
  const KeepLast nothing{0};
  Inbox inbox;

  EXPECT_THROW(const zorvix::Subscriber refused(kTopic, ignore, Delivery::Direct, nothing),
               std::invalid_argument);
  EXPECT_THROW(const zorvix::Subscriber refused(kTopic, ignore, inbox, nothing),
               std::invalid_argument);
}

// Room is made for a message before its type is known.
TEST_F(Bridge, MessageOfAnotherTypeLeavesNoGapAmongTheOthers) {
  Inbox inbox;
  std::vector<int> received;
  const zorvix::Subscriber subscriber(
      kTopic, [&](int number) { received.push_back(number); }, inbox);
  const zorvix::Publisher publisher(kTopic);
  std::vector<int> published;
  for (int count = 0; count < 70; ++count) {
    for (int i = 0; i < count; ++i) {
      published.push_back(100 * count + i);
      publisher.Publish(published.back());
    }
    zorvix::Publisher(zorvix::Topic<char>{"t"}).Publish('x');
    inbox.Drain();
  }

  EXPECT_EQ(received, published);
}

TEST_F(Bridge, PostedTasksAreNeverDropped) {
  Inbox inbox;
  int done = 0;

  for (int i = 0; i < 300; ++i) inbox.Post([&] { ++done; });

  EXPECT_EQ(inbox.Drain(), 300u);
  EXPECT_EQ(done, 300);
}

TEST_F(Bridge, WaitWakesEveryThreadThatWaitsHoweverLong) {
  Inbox inbox;
  EXPECT_FALSE(inbox.Wait(milliseconds(-1)));
  EXPECT_FALSE(inbox.Wait(std::chrono::duration<double, std::micro>(0.5)));
  const auto wait = [&](int thread) {
    if (thread % 2 == 0) {
      EXPECT_TRUE(inbox.Wait(std::chrono::hours::max()));
    } else {
      inbox.Wait();
    }
  };

  ExpectWakesAll(wait, [&] { inbox.Post([] {}); });
}

// A stop that comes between a look at the flag and the wait is seen by luck, hence the rounds.
TEST_F(Bridge, InboxThreadWithNothingPendingEnds) {
  Inbox inbox;
  for (int round = 0; round < 5000; ++round) {
    std::atomic<int> delay{round % 100};
    std::atomic<bool> done{false};
    const zorvix::InboxThread thread(inbox);
    inbox.Post([&] { done = true; });
    EXPECT_TRUE(ComesTrue([&] { return done.load(); }));
    while (delay > 0) --delay;
  }
}

TEST_F(Bridge, InboxThreadHasTheInboxsNameOrItsOwnInAtMost15Bytes) {
  const std::pair<const char*, const char*> rows[] = {{"", "inbox"},
                                                      {"tiles", "tiles"},
                                                      {"loads the map's tiles", "loads the map's"},
                                                      {"no half of an ä", "no half of an "}};
  for (const auto& [given, expected] : rows) {
    SCOPED_TRACE(expected);
    Inbox inbox;
    char name[16] = "";
    inbox.Post([&name] { prctl(PR_GET_NAME, name); });

    std::optional<zorvix::InboxThread>(std::in_place, inbox, given).reset();

    EXPECT_STREQ(name, expected);
  }
}

// Whether the stop comes before the drain ends is a matter of luck, mostly good.
TEST_F(Bridge, InboxThreadProcessesWhatIsPendingAlsoWhatArrivesInItsLastDrain) {
  Inbox inbox("mine");
  std::optional<zorvix::InboxThread> thread(inbox);
  HoldLog("held");
  inbox.Post([] { Log("held"); });
  WaitForLog("held");

  inbox.Post([] { throw std::runtime_error("bad luck"); });
  auto ending = std::async(std::launch::async, [&] { thread.reset(); });
  LetOthersRun();
  HoldLog("");
  ending.get();

  EXPECT_EQ(Count(TakeLog(), "callable failed! error: bad luck, name: mine"), 1u);
}

// The second callable is left to another drain than the first one.
TEST_F(Bridge, InboxThreadBeginsNoCallableOnceItsTimeIsOver) {
  Inbox inbox;
  zorvix::InboxThread thread(inbox);
  HoldLog("held");
  inbox.Post([] { Log("held"); });
  WaitForLog("held");
  inbox.Post([] { Log("begun"); });

  auto stop = BeginAndLetSleep([&] { return thread.Stop(milliseconds(0)); });
  HoldLog("");

  EXPECT_FALSE(stop.get());
  EXPECT_EQ(Count(TakeLog(), "begun"), 0u);
  EXPECT_EQ(inbox.Drain(), 1u);
}

}  // namespace
