// Topics and services: what modules agree on, in a header that they share.
//
//   #include <zorvix/topic.h>
//
//   #include <string>
//
//   inline constexpr zorvix::Topic<float> kLevels{"levels"};
//   inline constexpr zorvix::Service<int, std::string> kTitle{"title"};
//
// Messages, requests and responses are values that can be copied and moved. Names that begin with
// "zorvix/" are the library's own.
#ifndef ZORVIX_TOPIC_H_
#define ZORVIX_TOPIC_H_

#include <zorvix/detail/checks.h>
#include <zorvix/name.h>
#include <zorvix/zorvix.h>

namespace zorvix {

// A name and a type of messages. Publishers and subscribers match by name. A message of another
// type than that of a subscriber is logged there, and not delivered to it.
//
// kType is the topic kind of the plain interface, for modules that move to handles one by one. An
// endpoint that is registered through zorvix.h matches handles of the same topic kind. Of the kinds
// Async and SignleAsync, callables are invoked where the bridge's queue is drained. The first
// message or call of the kind SignleAsync removes its receivers.
template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
struct Topic {
  static_assert(detail::kIsValue<Message>, "a message must be a value, to be copied and moved");
  EndpointName name;
};

// A name and the types of requests and responses. Clients and servers match by name. If a type is
// another one, the call has no answer: Why::WrongType. kType as for a Topic.
template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
struct Service {
  static_assert(detail::kIsValue<Request>, "a request must be a value, to be copied and moved");
  static_assert(detail::kIsValue<Response>, "a response must be a value, to be copied and moved");
  EndpointName name;
};

}  // namespace zorvix

#endif  // ZORVIX_TOPIC_H_
