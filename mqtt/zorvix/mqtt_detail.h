// The parts of exports and imports that depend on the type of a message. Not for users: mqtt.h
// includes it.
#ifndef ZORVIX_MQTT_DETAIL_H_
#define ZORVIX_MQTT_DETAIL_H_

#include <zorvix/state.h>

#include <exception>

namespace zorvix {
namespace mqtt {

class Connection;

namespace detail {

struct Core;
class Sender;

// Marks a message as published by an import, on this thread and until it is destroyed.
class Importing {
 public:
  ZORVIX_EXPORT explicit Importing(const void* message);
  ZORVIX_EXPORT ~Importing();
  Importing(const Importing&) = delete;

 private:
  const void* const outer_;
};

// The functions that users give. They can be the name of a function that is overloaded or a
// template.
template <typename Message>
class Writer {
 public:
  template <typename Function>
  ZORVIX_INLINED Writer(Function function) : function_(std::move(function)) {}
  ZORVIX_HIDDEN Writer(std::string (*function)(const Message&)) : function_(function) {}
  ZORVIX_HIDDEN std::string operator()(const Message& message) const { return function_(message); }

 private:
  std::function<std::string(const Message&)> function_;
};

template <typename Message>
class Reader {
 public:
  template <typename Function>
  ZORVIX_INLINED Reader(Function function) : function_(std::move(function)) {}
  ZORVIX_HIDDEN Reader(Message (*function)(const std::string&)) : function_(function) {}

  // Returns nothing where the function throws a std::exception.
  ZORVIX_HIDDEN std::optional<Message> operator()(const std::string& text) const {
    try {
      return function_(text);
    } catch (const std::exception&) {
      return std::nullopt;
    }
  }

 private:
  std::function<Message(const std::string&)> function_;
};

// Keeps a function's parameter out of the deduction of the message's type.
template <typename Type>
struct Given {
  using Function = Type;
};

// Publishes to a topic in a way that exports recognise. Not a Publisher, since the address of the
// message must be known while it is delivered.
template <typename Message>
class ImportedTopic {
 public:
  ZORVIX_HIDDEN explicit ImportedTopic(const std::string& name)
      : control_(std::make_shared<bridge::Control>(
            bridge::Control{name, bridge::BridgeModule::Topic, bridge::BridgeType::Sync})) {
    bridge::Zorvix::GetInstance().RegisterPublisher(control_);
  }
  ZORVIX_HIDDEN ~ImportedTopic() { bridge::Zorvix::GetInstance().UnregisterPublisher(control_); }
  ImportedTopic(const ImportedTopic&) = delete;

  ZORVIX_HIDDEN void Publish(Message message) const {
    std::any any(std::in_place_type<Message>, std::move(message));
    const Importing importing(std::any_cast<Message>(&any));
    bridge::Zorvix::GetInstance().Publish(control_, std::move(any));
  }

 private:
  std::shared_ptr<const bridge::Control> control_;
};

enum class Kind { kTopic, kState };
using Handler = std::function<bool(const std::string&)>;  // returns false for a bad payload

// The part of an export that does not depend on the type of its messages.
class Sender {
 public:
  ZORVIX_EXPORT Sender(Connection& connection, const std::string& name, Kind kind, KeepLast keep);
  ZORVIX_EXPORT ~Sender();
  Sender(const Sender&) = delete;

  template <typename Message>
  ZORVIX_HIDDEN void Send(const Writer<Message>& write, const Message& message) {
    if (Suppressed(&message)) return;
    try {
      Push(write(message));
    } catch (const std::exception&) {
      Reject();
    }
  }

 private:
  ZORVIX_EXPORT bool Suppressed(const void* message) const;
  ZORVIX_EXPORT void Push(std::string text);
  ZORVIX_EXPORT void Reject();

  struct Parts;
  const std::shared_ptr<Core> core_;
  const std::shared_ptr<Parts> parts_;
};

template <typename Source>
struct Exporting {
  template <typename Described, typename Message>
  Exporting(Connection& connection, const Described& described, Kind kind, Writer<Message> write,
            KeepLast keep)
      : Exporting(std::make_shared<Sender>(connection, described.name, kind, keep), described,
                  std::move(write)) {}
  // The callable shares the sender, since it may destroy its own export.
  template <typename Described, typename Message>
  Exporting(const std::shared_ptr<Sender>& shared, const Described& described,
            Writer<Message> write)
      : sender(shared),
        source(described, [shared, write = std::move(write)](const Message& message) {
          shared->Send(write, message);
        }) {}
  const std::shared_ptr<Sender> sender;
  const Source source;  // destroyed first: nothing is sent any more
};

}  // namespace detail

}  // namespace mqtt
}  // namespace zorvix

#endif  // ZORVIX_MQTT_DETAIL_H_
