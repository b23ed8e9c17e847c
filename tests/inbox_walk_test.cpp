// A random walk: one thread does what users of inboxes and queued subscribers may do, also inside
// callables. A model predicts which callable is invoked next and what is logged.
#include <poll.h>

#include <list>
#include <random>

#include "bridge_test.h"

namespace {

using std::chrono::milliseconds;
using zorvix::Inbox;
using zorvix::KeepLast;

// Stored on the heap while it is pending, since it has code of its own.
struct Message {
  int number;
  std::string text;
};
const zorvix::Topic<Message> kTopic{"t"};
const auto ignore = [](auto&) {};

class InboxWalk : public Bridge {
 protected:
  struct Operation {
    void (InboxWalk::*apply)();
    double weight;
  };
  static const std::vector<Operation>& Operations() {
    static const std::vector<Operation> operations = {
        {&InboxWalk::Publish, 11},        {&InboxWalk::Post, 4},
        {&InboxWalk::DrainAll, 3},        {&InboxWalk::DrainOneTurn, 2},
        {&InboxWalk::RunOneTask, 8},      {&InboxWalk::SubscribeWithInbox, 4},
        {&InboxWalk::SubscribeQueued, 4}, {&InboxWalk::Unsubscribe, 7},
        {&InboxWalk::ReplaceInbox, 1},    {&InboxWalk::DropAllTasks, 1}};
    return operations;
  }
  static constexpr std::size_t kMostSubscribers = 12;
  static constexpr int kMostTasks = 8;
  static constexpr std::size_t kMostInvocations = 64;  // of one subscriber in a task

  struct Mailbox;
  struct Queue {  // of a subscriber, or of the tasks of an inbox
    std::string description;
    std::size_t depth;
    std::shared_ptr<Mailbox> mailbox;
    std::deque<int> pending = {};
  };
  struct Mailbox {
    std::optional<Inbox> inbox = {};  // none for a queued subscriber
    std::deque<Queue*> turns = {};
    bool shut = false;
    bool draining = false;
    std::size_t turns_left = 0;  // of the drain in progress
    std::size_t invoked = 0;     // in the drain or the task in progress
    bool ready() const { return !draining && !turns.empty(); }
  };
  struct Subscription {
    std::shared_ptr<Queue> queue;
    zorvix::Subscriber<Message> handle;
  };

  void Act() {
    if (HasFailure() || --steps_left_ < 0) return;
    (this->*Operations()[choose_(random_)].apply)();
    ExpectReadiness();
    ExpectLines();
  }

  void Publish() {
    ++number_;
    for (const auto& subscription : subscriptions_) Push(*subscription.queue);
    zorvix::Publisher(kTopic).Publish({number_, "text"});
  }

  void Post() {
    ++number_;
    Push(*tasks_);
    inbox_->inbox->Post([=, queue = tasks_, number = number_] { OnInvoked(*queue, number); });
  }

  void Push(Queue& queue) {
    Mailbox& mailbox = *queue.mailbox;
    if (mailbox.shut) return;
    mailbox.turns.push_back(&queue);
    if (queue.pending.size() == queue.depth) {
      DropOldest(queue);
    }
    queue.pending.push_back(number_);
    if (!mailbox.inbox) Schedule(queue.mailbox);
  }

  // The next message takes over the turn of the dropped one, so its own turn goes.
  void DropOldest(Queue& queue) {
    auto& turns = queue.mailbox->turns;
    const auto first = std::find(turns.begin(), turns.end(), &queue);
    const auto second = std::find(std::next(first), turns.end(), &queue);
    const auto index = static_cast<std::size_t>(second - turns.begin());
    if (index < queue.mailbox->turns_left) --queue.mailbox->turns_left;
    turns.erase(second);
    queue.pending.pop_front();
    if (queue.depth > 1) ++dropped_;
  }

  void Schedule(const std::shared_ptr<Mailbox>& mailbox) {
    if (!mailbox->ready()) return;
    const bool listed = std::find(ready_.begin(), ready_.end(), mailbox) != ready_.end();
    if (listed && posted_tasks_ > 0) return;
    if (!listed) ready_.push_back(mailbox);
    PostTasks();
  }
  void PostTasks() {
    posted_tasks_ = std::max(posted_tasks_, std::min(static_cast<int>(ready_.size()), kMostTasks));
  }

  void OnInvoked(Queue& queue, int number) {
    Mailbox& mailbox = *queue.mailbox;
    if (!mailbox.inbox) {
      if (mailbox.turns_left == 0) mailbox.turns_left = mailbox.turns.size();  // drains again
      ASSERT_LT(mailbox.invoked, kMostInvocations);
    }
    ASSERT_TRUE(mailbox.draining);
    ASSERT_GT(mailbox.turns_left, 0u);
    ASSERT_EQ(mailbox.turns.front(), &queue);
    ASSERT_EQ(queue.pending.front(), number);
    mailbox.turns.pop_front();
    --mailbox.turns_left;
    ++mailbox.invoked;
    queue.pending.pop_front();

    for (std::size_t acts = Below(3); acts > 0; --acts) Act();
    if (Below(12) == 0) throw 0;
    if (Below(12) == 0) {
      const auto name = queue.description.substr(queue.description.find("name: "));
      lines_.push_back("E: callable failed! error: bad luck, " + name.substr(0, name.find(',')));
      throw std::runtime_error("bad luck");
    }
  }

  void DrainAll() { Drain(std::nullopt); }
  void DrainOneTurn() { Drain(milliseconds(0)); }
  void Drain(std::optional<milliseconds> limit) {
    const auto mailbox = inbox_;
    const auto drain = [&] {
      return limit ? mailbox->inbox->Drain(*limit) : mailbox->inbox->Drain();
    };
    if (mailbox->draining) {
      EXPECT_EQ(drain(), 0u);
      return;
    }
    const std::size_t turns = mailbox->turns.size();
    mailbox->draining = true;
    mailbox->turns_left = turns;
    mailbox->invoked = 0;
    try {
      EXPECT_EQ(drain(), mailbox->invoked);
      EXPECT_TRUE(limit ? mailbox->invoked == std::min<std::size_t>(turns, 1)
                        : mailbox->turns_left == 0);
    } catch (int) {
    }
    mailbox->draining = false;
  }

  void RunOneTask() {
    const bool has_task = posted_tasks_ > 0;
    std::shared_ptr<Mailbox> mailbox;
    if (has_task) --posted_tasks_;
    if (has_task && !ready_.empty()) {
      mailbox = ready_.front();
      ready_.pop_front();
      PostTasks();
      mailbox->draining = true;
      mailbox->turns_left = 0;
      mailbox->invoked = 0;
    }
    bool all = true;
    try {
      EXPECT_EQ(ZorvixRunOneceStep(), has_task);
    } catch (int) {
      all = false;
    }
    if (mailbox == nullptr) return;
    EXPECT_TRUE(mailbox->turns.empty() || !all || mailbox->invoked == kMostInvocations);
    mailbox->draining = false;
    Schedule(mailbox);
  }

  void SubscribeWithInbox() { Subscribe(inbox_); }
  void SubscribeQueued() { Subscribe(std::make_shared<Mailbox>()); }
  void Subscribe(const std::shared_ptr<Mailbox>& mailbox) {
    if (subscriptions_.size() == kMostSubscribers) return;
    const KeepLast keep{1 + Below(3)};
    const auto queue = std::make_shared<Queue>(
        Queue{"kind: Subscriber, name: t, module: zorvix_test", keep.depth, mailbox});
    const auto call = [=](const Message& message) { OnInvoked(*queue, message.number); };
    subscriptions_.push_back(
        {queue, mailbox->inbox ? zorvix::Subscriber(kTopic, call, *mailbox->inbox, keep)
                               : zorvix::Subscriber(kTopic, call, zorvix::Delivery::Queued, keep)});
  }

  void Unsubscribe() {
    if (subscriptions_.empty()) return;
    const auto chosen =
        std::next(subscriptions_.begin(), static_cast<long>(Below(subscriptions_.size())));
    Queue& queue = *chosen->queue;
    Discard(queue);
    if (!queue.mailbox->inbox) {
      ready_.erase(std::remove(ready_.begin(), ready_.end(), queue.mailbox), ready_.end());
    }
    subscriptions_.erase(chosen);
  }

  void Discard(Queue& queue) {
    auto& turns = queue.mailbox->turns;
    const auto left = turns.begin() + static_cast<long>(queue.mailbox->turns_left);
    if (queue.mailbox->draining) {
      queue.mailbox->turns_left -=
          static_cast<std::size_t>(std::count(turns.begin(), left, &queue));
    }
    turns.erase(std::remove(turns.begin(), turns.end(), &queue), turns.end());
    if (!queue.pending.empty()) {
      lines_.push_back("I: pending messages are discarded, " + queue.description +
                       ", discarded: " + std::to_string(queue.pending.size()));
    }
    queue.pending.clear();
  }

  void ReplaceInbox() {
    const auto old = inbox_;
    UseNewInbox();
    if (old == nullptr) return;
    while (!old->turns.empty()) Discard(*old->turns.front());
    old->shut = true;
    old->inbox.reset();
  }
  void UseNewInbox() {
    inbox_ = std::make_shared<Mailbox>();
    inbox_->inbox.emplace();
    tasks_ = std::make_shared<Queue>(Queue{"kind: Inbox, name: inbox, module: zorvix_test",
                                           zorvix::KeepLast(zorvix::KeepAll()).depth, inbox_});
  }

  // Fills the bridge's queue with tasks of others. If that drops the last task while queued
  // subscribers are ready, a thread posts one anew, which drops one of the others. Runs the others.
  void DropAllTasks() {
    constexpr int kQueueSize = 100;
    const bool posts_anew = posted_tasks_ > 0 && !ready_.empty();
    for (int i = 0; i < kQueueSize; ++i) ZorvixPublish(others_, i);
    if (posts_anew) WaitForLog("event queue overflow", static_cast<std::size_t>(posted_tasks_) + 1);
    posted_tasks_ = posts_anew ? 1 : 0;
    for (int i = posted_tasks_; i < kQueueSize; ++i) EXPECT_TRUE(ZorvixRunOneceStep());
  }

  void ExpectReadiness() {
    EXPECT_EQ(inbox_->inbox->Wait(milliseconds(0)), inbox_->ready());
    if (Below(20) != 0) return;
    pollfd descriptor{inbox_->inbox->fd(), POLLIN, 0};
    EXPECT_EQ(poll(&descriptor, 1, 0), inbox_->ready() ? 1 : 0);
  }

  // Lines of the bridge are not predicted. They have no origin. When lines about dropped messages
  // are logged depends on the time, but not how many messages they tell in all.
  void ExpectLines() {
    Lines logged;
    for (const auto& line : TakeLog()) {
      if (line.find("a full queue drops its oldest messages") != std::string::npos) {
        EXPECT_EQ(line.find("depth: 1"), std::string::npos);
        continue;
      }
      const auto dropped = line.find("dropped: ");
      if (dropped != std::string::npos) {
        told_ += std::stoul(line.substr(dropped + 9));
        continue;
      }
      if (line[1] == '(') logged.push_back(line[0] + line.substr(line.find("): ") + 1));
    }
    EXPECT_EQ(logged, std::exchange(lines_, {}));
  }

  std::size_t Below(std::size_t limit) { return random_() % limit; }

  static std::discrete_distribution<std::size_t> Weights() {
    std::vector<double> weights;
    for (const auto& operation : Operations()) weights.push_back(operation.weight);
    return {weights.begin(), weights.end()};
  }

  std::mt19937 random_{Seed()};
  std::discrete_distribution<std::size_t> choose_ = Weights();
  int steps_left_ = 20000;
  int number_ = 0;           // of the latest message or task
  std::size_t dropped_ = 0;  // by queues with a depth of more than 1
  std::size_t told_ = 0;     // by lines of the log
  std::shared_ptr<Mailbox> inbox_;
  std::shared_ptr<Queue> tasks_;  // of the inbox
  std::list<Subscription> subscriptions_;
  std::deque<std::shared_ptr<Mailbox>>
      ready_;             // of queued subscribers, in the order of their tasks
  int posted_tasks_ = 0;  // in the bridge's queue
  Lines lines_;           // expected
  Endpoint& others_ = Subscribed("others", BridgeType::Async, {Subscriber(ignore)});
  // Tasks end with the last queued subscriber, so one stays.
  const zorvix::Subscriber<int> stays_{zorvix::Topic<int>{"stays"}, ignore,
                                       zorvix::Delivery::Queued};
};

TEST_F(InboxWalk, DoesWhatTheModelPredicts) {
  ZorvixSpinOnce();  // tasks that other tests have left
  UseNewInbox();

  while (steps_left_ > 0 && !HasFailure()) Act();

  while (!subscriptions_.empty()) Unsubscribe();
  ExpectLines();
  EXPECT_EQ(told_, dropped_);
  int tasks = 0;
  while (ZorvixRunOneceStep()) ++tasks;
  EXPECT_EQ(tasks, posted_tasks_);
  inbox_->inbox.reset();  // its tasks share the mailbox
}

}  // namespace
