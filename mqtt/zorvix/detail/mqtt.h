// The parts of exports and imports that depend on the type of a message. Not for users: mqtt.h
// includes it.
#ifndef ZORVIX_DETAIL_MQTT_H_
#define ZORVIX_DETAIL_MQTT_H_

#include <zorvix/delivery.h>
#include <zorvix/detail/listing.h>
#include <zorvix/state.h>
#include <zorvix/subscriber.h>
#include <zorvix/topic.h>

#include <any>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace zorvix {
namespace mqtt {

class Connection;

namespace detail ZORVIX_HIDDEN {

struct Core;
struct Stream;
class Inlet;

// A function that users give. It can be the name of a function that is overloaded or a template.
template <typename Result, typename Argument>
class Converter {
 public:
  template <typename Function>
  Converter(Function function) : function_(std::move(function)) {}
  Converter(Result (*function)(const Argument&)) : function_(function) {}
  Result operator()(const Argument& argument) const { return function_(argument); }

 private:
  std::function<Result(const Argument&)> function_;
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
  Sender(Connection& connection, const std::string& name, const std::string& mqtt_topic, Kind kind,
         KeepLast keep);
  ~Sender();
  Sender(const Sender&) = delete;

  // Whether an import publishes this message, or holds this state.
  bool IsImported(const void* message) const;
  void Push(std::string text);
  void Reject();
  zorvix::detail::Counts Count() const;

 private:
  const std::shared_ptr<Core> core_;
  const std::shared_ptr<Stream> stream_;
};

template <typename Message>
void Send(Sender& sender, const Encoder<Message>& encode, const Message& message) {
  if (sender.IsImported(&message)) return;
  try {
    sender.Push(encode(message));
  } catch (const std::exception&) {
    sender.Reject();
  }
}

// Lets the source have no row of its own in Inspect.
template <typename Source, typename Described, typename Callable>
Source Adopt(zorvix::detail::Listing& listing, const Described& described, Callable callable) {
  listing.AdoptNextHandle();
  return Source(described, std::move(callable));
}

// An export. The source's callable shares the sender, since it may destroy its own export.
template <typename Source>
struct Exporting {
  template <typename Described, typename Message>
  Exporting(Connection& connection, const Described& described, const std::string& mqtt_topic,
            Kind kind, Encoder<Message> encode, KeepLast keep)
      : sender(std::make_shared<Sender>(connection, described.name, mqtt_topic, kind, keep)),
        listing("Export", described.name, zorvix::detail::this_module,
                [shared = sender] { return shared->Count(); }),
        source(Adopt<Source>(listing, described,
                             [shared = sender, encode = std::move(encode)](const Message& message) {
                               Send(*shared, encode, message);
                             })) {}
  const std::shared_ptr<Sender> sender;
  zorvix::detail::Listing listing;
  const Source source;  // destroyed first: nothing is sent any more
};

// Publishes to a topic in a way that exports recognise. Not a Publisher, since the address of the
// message must be known while it is delivered. Not a template, since the bridge may keep what it
// is registered with for longer than the module of the import is loaded.
class ZORVIX_EXPORT ImportedTopic {
 public:
  explicit ImportedTopic(const std::string& name);
  ~ImportedTopic();
  ImportedTopic(const ImportedTopic&) = delete;
  // `message` is the address of the value in `any`.
  void Publish(std::any&& any, const void* message) const;

 private:
  std::shared_ptr<const bridge::Control> control_;
};

// The part of an import that does not depend on the type of its messages.
class ZORVIX_EXPORT Receiver {
 public:
  using Handler = std::function<void(const std::string& text)>;

  Receiver(Connection& connection, const std::string& name, const std::string& mqtt_topic,
           Kind kind);
  // When it has returned, the handler is destroyed, unless it is the handler that calls it.
  ~Receiver();
  Receiver(const Receiver&) = delete;

  // The handler is invoked on the connection's thread. It throws a std::exception for a text that
  // it cannot decode.
  void Start(Handler handler);
  // For a row of Inspect, which may outlive this object.
  std::function<zorvix::detail::Counts()> counts() const;

 private:
  const std::shared_ptr<Core> core_;
  const std::shared_ptr<Inlet> inlet_;
};

template <typename Message>
std::shared_ptr<void> ImportTopic(Connection& connection, const Topic<Message>& topic,
                                  const std::string& mqtt_topic, Decoder<Message> decode) {
  struct Target {
    const zorvix::detail::Listing listing;
    const ImportedTopic publisher;
  };
  auto receiver = std::make_shared<Receiver>(connection, topic.name, mqtt_topic, Kind::kTopic);
  const std::shared_ptr<Target> target(
      new Target{{"Import", topic.name, zorvix::detail::this_module, receiver->counts()},
                 ImportedTopic(topic.name)});
  receiver->Start([target, decode = std::move(decode)](const std::string& text) {
    std::any any(std::in_place_type<Message>, decode(text));
    const void* const message = std::any_cast<Message>(&any);
    target->publisher.Publish(std::move(any), message);
  });
  return receiver;
}

template <typename Value>
std::shared_ptr<void> ImportState(Connection& connection, const State<Value>& state,
                                  const std::string& mqtt_topic, Decoder<Value> decode) {
  struct Target {
    void Hold() {
      holder.reset();
      listing.AdoptNextHandle();
      holder.emplace(state);
    }
    const State<Value> state;
    zorvix::detail::Listing listing;
    std::optional<Holder<Value>> holder;
  };
  auto receiver = std::make_shared<Receiver>(connection, state.name, mqtt_topic, Kind::kState);
  const std::shared_ptr<Target> target(new Target{
      state, {"Import", state.name, zorvix::detail::this_module, receiver->counts()}, {}});
  target->Hold();
  receiver->Start([target, decode = std::move(decode)](const std::string& text) {
    if (text.empty() || !target->holder) target->Hold();
    if (!text.empty()) target->holder->Set(decode(text));
  });
  return receiver;
}

}  // namespace detail

}  // namespace mqtt
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_MQTT_H_
