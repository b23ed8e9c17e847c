// The subscriber to a topic.
//
//   #include <zorvix/inbox.h>
//   #include <zorvix/subscriber.h>
//
//   inline constexpr zorvix::Topic<float> kLevels{"levels"};
//
//   class Display {
//    public:
//     explicit Display(zorvix::Inbox& inbox)
//         : shown_(kLevels, [this](float level) { level_ = level; }, inbox, zorvix::KeepLast{1}) {}
//
//    private:
//     float level_ = 0;
//     const zorvix::Subscriber<float> shown_;  // the last member, so destroyed first
//   };
#ifndef ZORVIX_SUBSCRIBER_H_
#define ZORVIX_SUBSCRIBER_H_

#include <zorvix/delivery.h>
#include <zorvix/detail/library.h>
#include <zorvix/detail/mistakes.h>
#include <zorvix/topic.h>

#include <utility>

namespace zorvix {

// Invokes callable(const Message&) for each message. A message of another type is logged instead.
// What the callable returns is ignored. typed.h says on which thread it is invoked, and what a
// destructor waits for.
template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
class [[nodiscard]] Subscriber {
 public:
  // Invokes the callable directly, on the publisher's thread, with the publisher's object. Several
  // threads may do so at the same time. For an Async or SignleAsync topic, where the bridge's queue
  // is drained.
  template <typename Callable, detail::IfCallable<Callable> = 0>
  [[nodiscard]] Subscriber(const Topic<Message, kType>& topic, Callable callable)
      : state_(Make(topic, callable, {}, {})) {}

  // With Delivery::Queued, invokes the callable where the bridge's queue is drained, in order and
  // one at a time, with any number of workers (similar to a strand of Boost.Asio or a
  // folly::SerialExecutor). At most `keep` messages are pending: 100 by default.
  // REQUIRES: a Sync topic; others are a compile error.
  template <typename Callable, detail::IfCallable<Callable> = 0>
  [[nodiscard]] Subscriber(const Topic<Message, kType>& topic, Callable callable, Delivery delivery,
                           KeepLast keep = {})
      : state_(Make(topic, callable, detail::At<kType>(delivery), keep)) {}

  // Invokes the callable in drains of `inbox`, in order. At most `keep` messages are pending: 100
  // by default. If the inbox is destroyed first, messages are ignored.
  // REQUIRES: a Sync topic; others are a compile error.
  template <typename Callable, detail::IfCallable<Callable> = 0>
  [[nodiscard]] Subscriber(const Topic<Message, kType>& topic, Callable callable, Inbox& inbox,
                           KeepLast keep = {})
      : state_(Make(topic, callable, detail::At<kType>(inbox), keep)) {}

  // Other arguments: a compile error that says what is wrong.
  template <typename Given, typename... More,
            detail::IfMistaken<detail::Takes::kCallable, Topic<Message, kType>, Given, More...> = 0>
  explicit Subscriber(Given&&, More&&...) {
    detail::Explain<detail::Takes::kCallable, Topic<Message, kType>, Given, More...>();
  }

 private:
  template <typename Callable>
  static auto Make(const Topic<Message, kType>& topic, Callable& callable,
                   const detail::Place& place, KeepLast keep) {
    return detail::Subscribe({topic.name, kType}, detail::kMessageType<Message>,
                             detail::Receive<Message>(std::move(callable)), place, keep);
  }

  detail::Owned<detail::SubscriberState> state_;
};
Subscriber(...)->Subscriber<detail::Unknown>;  // for that constructor

}  // namespace zorvix

#endif  // ZORVIX_SUBSCRIBER_H_
