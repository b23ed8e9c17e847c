// The subscriber to a topic.
//
//   const zorvix::Subscriber print(kSamples, [](const Sample& sample) { ... });
//   const zorvix::Subscriber store(kSamples, Store, zorvix::Delivery::Queued);
//   const zorvix::Subscriber show(kSamples, Show, inbox, zorvix::KeepLast{1});
#ifndef ZORVIX_SUBSCRIBER_H_
#define ZORVIX_SUBSCRIBER_H_

#include <zorvix/delivery.h>
#include <zorvix/detail/library.h>
#include <zorvix/detail/mistakes.h>
#include <zorvix/topic.h>

#include <type_traits>
#include <utility>

namespace zorvix {

template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
class [[nodiscard]] Subscriber {
 public:
  // Invokes callable(const Message&) for each message, on the publisher's thread. A message of
  // another type is logged instead.
  template <typename Callable, detail::IfCallable<Callable> = 0>
  [[nodiscard]] Subscriber(const Topic<Message, kType>& topic, Callable callable)
      : state_(Make(topic, callable, detail::Place{}, {})) {}

  // With Delivery::Queued, in order and one at a time, with any number of workers; `keep` limits
  // how many messages are pending then.
  template <typename Callable, detail::IfCallable<Callable> = 0>
  [[nodiscard]] Subscriber(const Topic<Message, kType>& topic, Callable callable, Delivery delivery,
                           KeepLast keep = {})
      : state_(Make(topic, callable, detail::Place{delivery}, keep)) {
    static_assert(kType == bridge::BridgeType::Sync, "only a Sync topic has a choice of delivery");
  }

  // Invokes the callable in drains of the inbox.
  template <typename Callable, detail::IfCallable<Callable> = 0>
  [[nodiscard]] Subscriber(const Topic<Message, kType>& topic, Callable callable, Inbox& inbox,
                           KeepLast keep = {})
      : state_(Make(topic, callable, detail::Place{Delivery::Queued, &inbox}, keep)) {
    static_assert(kType == bridge::BridgeType::Sync, "only a Sync topic can have an inbox");
  }

  // Any other arguments: says what is wrong.
  template <typename Given, typename... More,
            detail::IfMistaken<detail::Takes::kCallable, Topic<Message, kType>, Given, More...> = 0>
  explicit Subscriber(Given&&, More&&...) {
    static_cast<void>(
        detail::Mistake<detail::Takes::kCallable, Topic<Message, kType>, Given, More...>());
  }

 private:
  template <typename Callable>
  static detail::Owned<detail::SubscriberState> Make(const Topic<Message, kType>& topic,
                                                     Callable& callable, const detail::Place& place,
                                                     KeepLast keep) {
    return detail::Subscribe({topic.name, kType}, detail::kMessageType<Message>,
                             detail::Receive<Message>(std::move(callable)), place, keep);
  }

  detail::Owned<detail::SubscriberState> state_;
};

// Leads to the constructor that says what is wrong.
Subscriber(...)->Subscriber<detail::Unknown>;

}  // namespace zorvix

#endif  // ZORVIX_SUBSCRIBER_H_
