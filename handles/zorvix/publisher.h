// The publisher of a topic.
//
//   const zorvix::Publisher samples(kSamples);
//   samples.Publish({1, 0.5});
#ifndef ZORVIX_PUBLISHER_H_
#define ZORVIX_PUBLISHER_H_

#include <zorvix/delivery.h>
#include <zorvix/detail/library.h>
#include <zorvix/detail/mistakes.h>
#include <zorvix/topic.h>

#include <any>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace zorvix {

template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
class [[nodiscard]] Publisher {
 public:
  [[nodiscard]] explicit Publisher(const Topic<Message, kType>& topic)
      : state_(detail::MakePublisher({topic.name, kType}, typeid(Message), Audience::Expected)) {}
  [[nodiscard]] Publisher(const Topic<Message, kType>& topic, Audience audience)
      : state_(detail::MakePublisher({topic.name, kType}, typeid(Message), audience)) {
    static_assert(kType == bridge::BridgeType::Sync,
                  "the audience can be chosen for a Sync topic only");
  }

  // Returns whether there was a subscriber; with Audience::Optional always true. Invokes the
  // callables of direct subscribers, one after the other, and blocks meanwhile. For each queued
  // subscriber and each one with an inbox it stores a copy of the message. A moved-from publisher
  // returns false.
  bool Publish(Message message) const {
    return state_ != nullptr &&
           detail::Publish(*state_, std::any(std::in_place_type<Message>, std::move(message)));
  }

  // Any other arguments: says what is wrong.
  template <typename Given, typename... More,
            detail::IfMistaken<detail::Takes::kAudience, Topic<Message, kType>, Given, More...> = 0>
  explicit Publisher(Given&&, More&&...) {
    static_cast<void>(
        detail::Mistake<detail::Takes::kAudience, Topic<Message, kType>, Given, More...>());
  }

 private:
  detail::Owned<detail::PublisherState> state_;
};

// Leads to the constructor that says what is wrong.
Publisher(...)->Publisher<detail::Unknown>;

}  // namespace zorvix

#endif  // ZORVIX_PUBLISHER_H_
