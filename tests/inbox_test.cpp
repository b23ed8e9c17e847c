// What inboxes and queued subscribers promise beyond the walk, such as fairness.
#include <sys/prctl.h>
#include <unistd.h>

#include <iostream>
#include <list>

#include "bridge_test.h"

namespace {

using std::chrono::milliseconds;
using zorvix::Delivery;
using zorvix::Inbox;
using zorvix::KeepAll;
using zorvix::KeepLast;

const zorvix::Topic<int> kTopic{"t"};
const zorvix::Topic<int> kOther{"other"};
const auto ignore = [](auto&) {};

// Sends a message to the inbox in which it was pending.
struct PublishesAtItsEnd {
  ~PublishesAtItsEnd() { zorvix::Publisher(kOther).Publish(0); }
};

using Inboxes = Bridge;

// Hangs if a lock is held.
TEST_F(Inboxes, MessagesAreDestroyedUnderNoLock) {
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
TEST_F(Inboxes, ManyPendingMessagesOfManySubscribersAreDiscardedInLinearTime) {
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

TEST_F(Inboxes, EachWorkerMayInvokeAQueuedSubscriberWhileOthersAreBusy) {
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
TEST_F(Inboxes, QueuedSubscriberGetsItsTurnAfterAtMost64InvocationsOfAnother) {
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

TEST_F(Inboxes, DepthOfNothingIsRefused) {
  const KeepLast nothing{0};
  Inbox inbox;

  EXPECT_THROW(const zorvix::Subscriber refused(kTopic, ignore, Delivery::Direct, nothing),
               std::invalid_argument);
  EXPECT_THROW(const zorvix::Subscriber refused(kTopic, ignore, inbox, nothing),
               std::invalid_argument);
}

// Room is made for a message before its type is known.
TEST_F(Inboxes, MessageOfAnotherTypeLeavesNoGapAmongTheOthers) {
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

TEST_F(Inboxes, PostedTasksAreNeverDropped) {
  Inbox inbox;
  int done = 0;

  for (int i = 0; i < 300; ++i) inbox.Post([&] { ++done; });

  EXPECT_EQ(inbox.Drain(), 300u);
  EXPECT_EQ(done, 300);
}

TEST_F(Inboxes, InboxThreadHasTheInboxsNameOrItsOwnInAtMost15Bytes) {
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

TEST_F(Inboxes, ThreadThatIsStoppedByItsCallableEndsTheProcess) {
  const auto stop_in_callable = [] {
    HoldLog("InboxThread");
    Inbox inbox;
    zorvix::InboxThread thread(inbox);
    inbox.Post([&] { thread.Stop(); });
    WaitForLog("InboxThread");
    std::cerr << TakeLog().back();
    HoldLog("");
    pause();
  };

  EXPECT_DEATH(stop_in_callable(), "an InboxThread is stopped by a callable it invokes");
}

}  // namespace
