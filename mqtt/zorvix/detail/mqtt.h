// The parts of exports and imports that depend on the type of a message. Not for users: mqtt.h
// includes it.
#ifndef ZORVIX_DETAIL_MQTT_H_
#define ZORVIX_DETAIL_MQTT_H_

#include <zorvix/delivery.h>
#include <zorvix/detail/erasure.h>
#include <zorvix/detail/listing.h>
#include <zorvix/state.h>
#include <zorvix/subscriber.h>
#include <zorvix/topic.h>
#include <zorvix/zorvix.h>

#include <any>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace zorvix::mqtt {

class Connection;

namespace detail ZORVIX_HIDDEN {

struct Core;
struct Stream;
class Inlet;

// A function that users give. It can be the name of a function that is overloaded or a template.
template <typename Result, typename Argument>
class Converter : public std::function<Result(const Argument&)> {
 public:
  using Base = std::function<Result(const Argument&)>;
  using Base::Base;
  Converter(Result (*pointer)(const Argument&)) : Base(pointer) {}
};
template <typename Message>
using Encoder = Converter<std::string, Message>;
template <typename Message>
using Decoder = Converter<Message, std::string>;

// Keeps a function's parameter out of the deduction of the message's type.
template <typename Type>
struct Given {
  using Function = Type;
};

enum class Kind { kTopic, kState };

// The part of an export that does not depend on the type of its messages.
class ZORVIX_EXPORT Sender {
 public:
  // The module is filled in.
  Sender(Connection& connection, const std::string& name, const std::string& mqtt_topic, Kind kind,
         KeepLast keep, zorvix::detail::Module& module = zorvix::detail::this_module);
  ~Sender();
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  // Sends encode(), unless an import publishes this message, or holds this state.
  void Send(const void* message, const std::function<std::string()>& encode);
  // Lets the source of the messages have no row of its own in Inspect.
  void AdoptNextHandle() { listing_.AdoptNextHandle(); }

 private:
  const std::shared_ptr<Core> core_;
  const std::shared_ptr<Stream> stream_;
  zorvix::detail::Listing listing_;
};

// Returns the source. Its callable shares the sender, since it may destroy its own export.
template <typename Source, typename Message, typename Described>
std::shared_ptr<void> StartExport(const std::shared_ptr<Sender>& sender, const Described& described,
                                  Encoder<Message> encode) {
  sender->AdoptNextHandle();
  return std::make_shared<Source>(described,
                                  [sender, encode = std::move(encode)](const Message& message) {
                                    sender->Send(&message, [&] { return encode(message); });
                                  });
}

// Publishes to a topic in a way that exports recognise. Not a Publisher, since the address of the
// message must be known while it is delivered. Not a template, since the bridge may keep what it
// is registered with for longer than the module of the import is loaded.
class ZORVIX_EXPORT ImportedTopic {
 public:
  explicit ImportedTopic(const std::string& name);
  ~ImportedTopic();
  ImportedTopic(const ImportedTopic&) = delete;
  ImportedTopic& operator=(const ImportedTopic&) = delete;
  // `message` is the address of the value in `any`.
  void Publish(std::any&& any, const void* message) const;

 private:
  std::shared_ptr<const bridge::Control> control_;
};

// The part of an import that does not depend on the type of its messages.
class ZORVIX_EXPORT Receiver {
 public:
  using Handler = std::function<void(const std::string& text)>;

  // The module is filled in.
  Receiver(Connection& connection, const std::string& name, const std::string& mqtt_topic,
           Kind kind, zorvix::detail::Module& module = zorvix::detail::this_module);
  // When it has returned, the handler is destroyed, unless it is the handler that calls it.
  ~Receiver();
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  // The handler is invoked on the connection's thread. It throws a std::exception for a text that
  // it cannot decode.
  void Start(Handler handler);
  // The row of Inspect, for handlers that own a handle.
  const std::shared_ptr<zorvix::detail::Listing>& listing() const { return listing_; }

 private:
  const std::shared_ptr<Core> core_;
  const std::shared_ptr<Inlet> inlet_;
  const std::shared_ptr<zorvix::detail::Listing> listing_;
};

template <typename Message>
std::shared_ptr<void> ImportTopic(Connection& connection, const Topic<Message>& topic,
                                  const std::string& mqtt_topic, Decoder<Message> decode) {
  auto receiver = std::make_shared<Receiver>(connection, topic.name, mqtt_topic, Kind::kTopic);
  const auto publisher = std::make_shared<ImportedTopic>(topic.name);
  receiver->Start([publisher, decode = std::move(decode)](const std::string& text) {
    std::any any(std::in_place_type<Message>, decode(text));
    const void* const message = std::any_cast<Message>(&any);
    publisher->Publish(std::move(any), message);
  });
  return receiver;
}

template <typename Value>
std::shared_ptr<void> ImportState(Connection& connection, const State<Value>& state,
                                  const std::string& mqtt_topic, Decoder<Value> decode) {
  struct Target {
    void Hold() {
      holder.reset();
      listing->AdoptNextHandle();
      holder.emplace(state);
    }
    const State<Value> state;
    const std::shared_ptr<zorvix::detail::Listing> listing;
    std::optional<Holder<Value>> holder;  // destroyed first
  };
  auto receiver = std::make_shared<Receiver>(connection, state.name, mqtt_topic, Kind::kState);
  const std::shared_ptr<Target> target(new Target{state, receiver->listing(), {}});
  target->Hold();
  receiver->Start([target, decode = std::move(decode)](const std::string& text) {
    if (text.empty() || !target->holder) target->Hold();
    if (!text.empty()) target->holder->Set(decode(text));
  });
  return receiver;
}

}  // namespace detail

}  // namespace zorvix::mqtt

#endif  // ZORVIX_DETAIL_MQTT_H_
