// Topics and services: what modules agree on, in a header that they share.
//
//   inline constexpr zorvix::Topic<Sample> kSamples{"samples"};
//   inline constexpr zorvix::Service<int, std::string> kTitle{"title"};
//
// Messages, requests and responses are values that can be copied and moved. Names that begin with
// "zorvix/" are the library's own.
//
// kType is for modules that move to handles one by one: an endpoint that is registered through
// zorvix.h with another type than Sync matches only handles of the same type.
#ifndef ZORVIX_TOPIC_H_
#define ZORVIX_TOPIC_H_

#include <zorvix/detail/checks.h>
#include <zorvix/name.h>
#include <zorvix/zorvix.h>

namespace zorvix {

template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
struct Topic {
  static_assert(detail::kIsValue<Message>, "a message must be a value, to be copied and moved");
  EndpointName name;
};

template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
struct Service {
  static_assert(detail::kIsValue<Request>, "a request must be a value, to be copied and moved");
  static_assert(detail::kIsValue<Response>, "a response must be a value, to be copied and moved");
  EndpointName name;
};

}  // namespace zorvix

#endif  // ZORVIX_TOPIC_H_
