// The parts of exports and imports that depend on the type of a message. Not for users: mqtt.h
// includes it.
#ifndef ZORVIX_MQTT_DETAIL_H_
#define ZORVIX_MQTT_DETAIL_H_

#include <zorvix/state.h>

#include <exception>

namespace zorvix {
namespace mqtt {

class Connection;
struct Incoming;

namespace detail {

struct Core;

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

struct Amounts {
  std::size_t pending = 0;
  std::size_t dropped = 0;
};

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
  // Messages that the broker has not acknowledged, and those that never reach it.
  ZORVIX_EXPORT Amounts Count() const;

 private:
  ZORVIX_EXPORT bool Suppressed(const void* message) const;
  ZORVIX_EXPORT void Push(std::string text);
  ZORVIX_EXPORT void Reject();

  struct Parts;
  const std::shared_ptr<Core> core_;
  const std::shared_ptr<Parts> parts_;
};

// The same for an import.
class Receiver {
 public:
  ZORVIX_EXPORT Receiver(Connection& connection, const std::string& name, Kind kind,
                         Handler handler);
  ZORVIX_EXPORT ~Receiver();
  Receiver(const Receiver&) = delete;
  ZORVIX_EXPORT Amounts Count() const;  // dropped: payloads that were rejected

 private:
  const std::shared_ptr<Core> core_;
  const std::shared_ptr<Incoming> incoming_;
};

// What Inspect lists. In this header, so that it names the module of the user.
template <typename Counted>
struct ZORVIX_HIDDEN Listing final : zorvix::detail::Record {
  Listing(const char* its_kind, const std::string& its_name, std::shared_ptr<Counted> its,
          std::size_t its_depth)
      : Record(its_kind, its_name), counted(std::move(its)), depth(its_depth), listed(*this) {}
  zorvix::detail::Counts Count() const override {
    const Amounts amounts = counted->Count();
    return {amounts.pending, depth, amounts.dropped};
  }
  const std::shared_ptr<Counted> counted;
  const std::size_t depth;
  const zorvix::detail::Listed listed;
};

// An export. The source's callable shares the sender, since it may destroy its own export.
template <typename Source>
struct ZORVIX_HIDDEN Exporting {
  template <typename Described, typename Message>
  Exporting(const std::shared_ptr<Sender>& sender, const Described& described,
            Writer<Message> write, KeepLast keep)
      : listing("Export", described.name, sender, keep.depth),
        source(described, [sender, write = std::move(write)](const Message& message) {
          sender->Send(write, message);
        }) {}
  const Listing<Sender> listing;
  const Source source;  // destroyed first: nothing is sent any more
};

template <typename Source, typename Described, typename Message>
ZORVIX_HIDDEN std::shared_ptr<void> StartExport(Connection& connection, const Described& described,
                                                Kind kind, Writer<Message> write, KeepLast keep) {
  const auto sender = std::make_shared<Sender>(connection, described.name, kind, keep);
  return std::make_shared<Exporting<Source>>(sender, described, std::move(write), keep);
}

ZORVIX_HIDDEN inline std::shared_ptr<void> StartImport(Connection& connection,
                                                       const std::string& name, Kind kind,
                                                       Handler handler) {
  const auto receiver = std::make_shared<Receiver>(connection, name, kind, std::move(handler));
  return std::make_shared<Listing<Receiver>>("Import", name, receiver, 0);
}

}  // namespace detail

}  // namespace mqtt
}  // namespace zorvix

#endif  // ZORVIX_MQTT_DETAIL_H_
