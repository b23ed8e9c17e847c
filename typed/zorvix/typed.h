// Typed handles for the bridge. A handle registers in its constructor and unregisters in its
// destructor.
//
//   const zorvix::Topic<Sample> kSamples{"samples"};  // in a header that modules share
//   zorvix::Subscriber print(kSamples, [](const Sample& sample) { ... });
//   zorvix::Publisher(kSamples).Publish({1, 0.5});
//
// Handles match endpoints that are registered through zorvix.h under the same name and type. Any
// thread may use a handle. A constructor that throws has no effect; it throws what allocations
// throw, and what its comment says. A destructor that cannot allocate ends the process.
//
// Lifetime: once the destructor of a Subscriber or Server has returned, its callable is not running
// on any other thread and is not invoked again, not even for messages that were published or queued
// earlier. The destructor therefore blocks while another thread is inside the callable; after one
// second it logs a WARN with the endpoint's name. Do not destroy a handle while holding a lock that
// its callable takes, and do not let two callables destroy each other's handles. A callable may
// destroy its own handle.
//
// Callables: a callable with direct delivery may be entered by several threads at the same time,
// and before the constructor of its handle has returned. It must return on the thread that invoked
// it, which matters to fibers. A std::exception that it throws is caught and logged. Any other
// exception propagates to the code that published, called or drained, and ends the process on a
// worker or an InboxThread.
//
// Moving: a handle may be moved, but not by two threads at the same time. A moved-from handle does
// nothing.
//
// Exit: the bridge is destroyed at process exit, before every static object that existed when the
// bridge was first used. Destroy handles before. A function-local static handle in a function that
// has used the bridge is destroyed early enough; a global std::optional that main fills is not,
// unless main empties it.
#ifndef ZORVIX_TYPED_H_
#define ZORVIX_TYPED_H_

#include <zorvix/client.h>
#include <zorvix/detail/handle.h>
#include <zorvix/inbox.h>
#include <zorvix/topic.h>
#include <zorvix/workers.h>

namespace zorvix {

template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
class Publisher {
 public:
  [[nodiscard]] ZORVIX_HIDDEN explicit Publisher(const Topic<Message, kType>& topic)
      : sender_(detail::MakePublisher(topic.name, kType, Audience::Expected)) {}
  [[nodiscard]] ZORVIX_HIDDEN Publisher(const Topic<Message, kType>& topic, Audience audience)
      : sender_(detail::MakePublisher(topic.name, kType, audience)) {
    static_assert(kType == bridge::BridgeType::Sync,
                  "the audience can be chosen for a Sync topic only");
  }
  template <typename Other, typename... More, detail::IfOther<Other, Topic<Message, kType>> = 0>
  [[nodiscard]] ZORVIX_INLINED explicit Publisher(const Other&, const More&...) {
    static_assert(std::is_same_v<Other, Topic<Message, kType>>,
                  "a publisher needs a Topic of its own type");
  }
  ZORVIX_MOVE_ONLY(Publisher);

  // Returns whether there was a subscriber; with Audience::Optional always true. Blocks while the
  // subscribers of a Sync topic with direct delivery are invoked. Only the first subscriber of an
  // Async or SignleAsync topic gets the message; the others are not invoked.
  ZORVIX_HIDDEN bool Publish(Message message) const {
    const auto* const sender = static_cast<const detail::Sender*>(sender_.get());
    if (sender == nullptr) return false;
    const detail::Section section(sender->process, "Publish", sender->name);
    std::any any(std::in_place_type<Message>, std::move(message));
    return detail::Bridge().Publish(sender->participant.control, std::move(any));
  }

 private:
  std::shared_ptr<void> sender_;
};

template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
class Subscriber {
 public:
  // Invokes callable(const Message&) for each message. A message of another type is logged instead.
  // A subscriber with Delivery::Queued gets its messages in order and one at a time, with any
  // number of workers; `keep` limits how many are pending. Delivery and depth have no effect on
  // Async and SignleAsync topics, whose messages always come from the bridge's queue.
  template <typename Callable>
  [[nodiscard]] ZORVIX_INLINED Subscriber(const Topic<Message, kType>& topic, Callable callable,
                                          Delivery delivery = Delivery::Direct,
                                          KeepLast keep = {}) {
    detail::CheckCallable<Callable, const Message&>();
    detail::CheckedDepth(keep);
    if (kType == bridge::BridgeType::Sync && delivery == Delivery::Queued) {
      registration_ = detail::SubscribeWithMailbox<Message>(
          topic.name, detail::MakeQueuedMailbox(topic.name), std::move(callable), keep);
    } else {
      registration_ = detail::SubscribeDirectly<Message>(topic.name, kType, std::move(callable));
    }
  }

  // Invokes the callable in drains of the inbox.
  template <typename Callable>
  [[nodiscard]] ZORVIX_INLINED Subscriber(const Topic<Message, kType>& topic, Callable callable,
                                          Inbox& inbox, KeepLast keep = {})
      : registration_(detail::SubscribeWithMailbox<Message>(topic.name, inbox.state().mailbox,
                                                            std::move(callable), keep)) {
    static_assert(kType == bridge::BridgeType::Sync, "only a Sync topic can have an inbox");
    detail::CheckCallable<Callable, const Message&>();
  }

  template <typename Other, typename... More, detail::IfOther<Other, Topic<Message, kType>> = 0>
  [[nodiscard]] ZORVIX_INLINED explicit Subscriber(const Other&, const More&...) {
    static_assert(std::is_same_v<Other, Topic<Message, kType>>,
                  "a subscriber needs a Topic of its own type");
  }
  template <typename Callable, typename Where, typename Depth = KeepLast,
            detail::IfMistaken<Where, Depth> = 0>
  [[nodiscard]] ZORVIX_INLINED Subscriber(const Topic<Message, kType>&, const Callable&,
                                          const Where&, const Depth& = {}) {
    detail::CheckOptions<Where, Depth>();
  }
  ZORVIX_MOVE_ONLY(Subscriber);

 private:
  std::shared_ptr<void> registration_;
};

// Selects the constructor that says what is wrong.
template <typename Request, typename Response, bridge::BridgeType kType, typename... More>
Subscriber(const Service<Request, Response, kType>&, const More&...) -> Subscriber<Request, kType>;

// A service has one server at a time. A new server replaces the current one, and the bridge logs a
// WARN. Server handles of one service may be destroyed in any order: destroying a handle that was
// replaced does not remove its successor.
//
// Limitation: destroying a handle may remove a server that was registered without a handle
// (Zorvix::RegisterServer), in two cases:
// - that server has replaced the handle while calls of the handle were in progress;
// - the first publisher, subscriber, client or server to use the name had no handle.
template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
class Server {
 public:
  // Answers each call with callable(const Request&): on the caller's thread if the service is Sync,
  // otherwise where the bridge's queue is drained.
  template <typename Callable>
  [[nodiscard]] ZORVIX_INLINED Server(const Service<Request, Response, kType>& service,
                                      Callable callable)
      : registration_(
            detail::ServeDirectly<Request, Response>(service.name, kType, std::move(callable))) {
    detail::CheckServer<Callable, Request, Response>();
  }

  // Answers in drains of the inbox. At most `keep` requests are pending: the oldest is dropped and
  // answered with none. So are those that are pending when the server or the inbox is destroyed.
  template <typename Callable>
  [[nodiscard]] ZORVIX_INLINED Server(const Service<Request, Response, kType>& service,
                                      Callable callable, Inbox& inbox, KeepLast keep = {})
      : registration_(detail::ServeWithMailbox<Request, Response>(
            service.name, inbox.state().mailbox, std::move(callable), keep)) {
    static_assert(kType == bridge::BridgeType::Sync, "only a Sync service can have an inbox");
    detail::CheckServer<Callable, Request, Response>();
  }

  template <typename Callable, typename Where, typename Depth = KeepLast,
            detail::IfMistaken<Where, Depth> = 0>
  [[nodiscard]] ZORVIX_INLINED Server(const Service<Request, Response, kType>&, const Callable&,
                                      const Where&, const Depth& = {}) {
    detail::CheckOptions<Where, Depth>();
  }
  ZORVIX_MOVE_ONLY(Server);

 private:
  std::shared_ptr<void> registration_;
};

}  // namespace zorvix

#endif  // ZORVIX_TYPED_H_
