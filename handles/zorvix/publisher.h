// The publisher of a topic.
//
//   #include <zorvix/publisher.h>
//
//   inline constexpr zorvix::Topic<float> kLevels{"levels"};
//
//   class Meter {
//    public:
//     void Measured(float level) { levels_.Publish(level); }
//
//    private:
//     const zorvix::Publisher<float> levels_{kLevels};
//   };
#ifndef ZORVIX_PUBLISHER_H_
#define ZORVIX_PUBLISHER_H_

#include <zorvix/delivery.h>
#include <zorvix/detail/library.h>
#include <zorvix/detail/mistakes.h>
#include <zorvix/topic.h>

#include <any>
#include <typeinfo>
#include <utility>

namespace zorvix {

// Publish: delivers a message to all subscribers.
template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
class [[nodiscard]] Publisher {
 public:
  // Expects subscribers: a publication without one is logged.
  [[nodiscard]] explicit Publisher(const Topic<Message, kType>& topic)
      : state_(detail::MakePublisher({topic.name, kType}, typeid(Message), Audience::Expected)) {}

  // REQUIRES: a Sync topic; others are a compile error.
  [[nodiscard]] Publisher(const Topic<Message, kType>& topic, Audience audience)
      : state_(detail::MakePublisher({topic.name, kType}, typeid(Message),
                                     detail::Checked<kType>(audience))) {}

  // Delivers `message` to the subscribers that exist now, in the order of their construction. It
  // invokes the callables of direct ones, with the same object, and blocks meanwhile. For each
  // queued one, and each one with an inbox, it stores a copy. Any thread may call it, also in a
  // callable.
  //
  // Async or SignleAsync topic: it does not block. The first subscriber gets `message`, and no
  // other one gets any.
  //
  // Returns false, and logs a WARN, if there was no subscriber. True does not mean that anybody
  // took the message: it may be of another type than a subscriber expects, which is logged, or its
  // inbox may be destroyed. With Audience::Optional, returns true. A moved-from publisher returns
  // false. Throws std::bad_alloc, or what moving the message throws, before anybody has it; and
  // what a direct callable throws that is no std::exception.
  bool Publish(Message message) const {
    return state_ != nullptr &&
           detail::Publish(*state_, std::any(std::in_place_type<Message>, std::move(message)));
  }

  // Other arguments: a compile error that says what is wrong.
  template <typename Given, typename... More,
            detail::IfMistaken<detail::Takes::kAudience, Topic<Message, kType>, Given, More...> = 0>
  explicit Publisher(Given&&, More&&...) {
    detail::Explain<detail::Takes::kAudience, Topic<Message, kType>, Given, More...>();
  }

 private:
  detail::Owned<detail::PublisherState> state_;
};
Publisher(...)->Publisher<detail::Unknown>;  // for that constructor

}  // namespace zorvix

#endif  // ZORVIX_PUBLISHER_H_
