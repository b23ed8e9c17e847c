// The subscriber to a topic.
//
//   const zorvix::Subscriber print(kSamples, [](const Sample& sample) { ... });
//   const zorvix::Subscriber store(kSamples, Store, zorvix::Delivery::Queued);
//   const zorvix::Subscriber show(kSamples, Show, inbox, zorvix::KeepLast{1});
#ifndef ZORVIX_SUBSCRIBER_H_
#define ZORVIX_SUBSCRIBER_H_

#include <zorvix/delivery.h>
#include <zorvix/detail/library.h>
#include <zorvix/topic.h>

#include <type_traits>
#include <utility>

namespace zorvix {

template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
class Subscriber {
 public:
  // Invokes callable(const Message&) for each message, on the publisher's thread. A message of
  // another type is logged instead.
  template <typename Callable>
  [[nodiscard]] Subscriber(const Topic<Message, kType>& topic, Callable callable)
      : Subscriber(topic, std::move(callable), detail::Place{}, {}) {}

  // With Delivery::Queued, in order and one at a time, with any number of workers; `keep` limits
  // how many messages are pending then.
  template <typename Callable>
  [[nodiscard]] Subscriber(const Topic<Message, kType>& topic, Callable callable, Delivery delivery,
                           KeepLast keep = {})
      : Subscriber(topic, std::move(callable), detail::Place{delivery}, keep) {
    static_assert(kType == bridge::BridgeType::Sync, "only a Sync topic has a choice of delivery");
  }

  // Invokes the callable in drains of the inbox.
  template <typename Callable>
  [[nodiscard]] Subscriber(const Topic<Message, kType>& topic, Callable callable, Inbox& inbox,
                           KeepLast keep = {})
      : Subscriber(topic, std::move(callable), detail::Place{Delivery::Queued, &inbox}, keep) {
    static_assert(kType == bridge::BridgeType::Sync, "only a Sync topic can have an inbox");
  }

  // Mistakes.
  template <typename Other, typename... More, detail::IfOther<Other, Topic<Message, kType>> = 0>
  [[nodiscard]] explicit Subscriber(const Other&, const More&...) {
    static_assert(std::is_same_v<Other, Topic<Message, kType>>,
                  "a subscriber needs a Topic of its own type");
  }
  template <typename Callable, typename Where, typename Depth = KeepLast,
            detail::IfMistaken<Where, Depth> = 0>
  [[nodiscard]] Subscriber(const Topic<Message, kType>&, const Callable&, const Where&,
                           const Depth& = {}) {
    detail::CheckOptions<Where, Depth>();
  }

 private:
  template <typename Callable>
  Subscriber(const Topic<Message, kType>& topic, Callable callable, const detail::Place& place,
             KeepLast keep)
      : state_(detail::Subscribe({topic.name, kType}, detail::kMessageType<Message>,
                                 detail::Receive<Message>(std::move(callable)), place, keep)) {}

  detail::Owned<detail::SubscriberState> state_;
};

// Selects the constructor that says what is wrong.
template <typename Request, typename Response, bridge::BridgeType kType, typename... More>
Subscriber(const Service<Request, Response, kType>&, const More&...) -> Subscriber<Request, kType>;

}  // namespace zorvix

#endif  // ZORVIX_SUBSCRIBER_H_
