// The parts of exports and imports that depend on the type of a message. Not for users: mqtt.h
// includes it.
#ifndef ZORVIX_MQTT_DETAIL_H_
#define ZORVIX_MQTT_DETAIL_H_

#include <zorvix/delivery.h>
#include <zorvix/detail/listing.h>
#include <zorvix/state.h>
#include <zorvix/subscriber.h>
#include <zorvix/topic.h>

#include <any>
#include <cstddef>
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

class Receiver;
struct Core;

// The functions that users give. They can be the name of a function that is overloaded or a
// template.
template <typename Message>
class Writer {
 public:
  template <typename Function>
  Writer(Function function) : function_(std::move(function)) {}
  Writer(std::string (*function)(const Message&)) : function_(function) {}
  std::string operator()(const Message& message) const { return function_(message); }

 private:
  std::function<std::string(const Message&)> function_;
};

template <typename Message>
class Reader {
 public:
  template <typename Function>
  Reader(Function function) : function_(std::move(function)) {}
  Reader(Message (*function)(const std::string&)) : function_(function) {}

  // Returns nothing where the function throws a std::exception.
  std::optional<Message> operator()(const std::string& text) const {
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

enum class Kind { kTopic, kState };
using Handler = std::function<bool(const std::string&)>;  // returns false for a bad payload

struct Amounts {
  std::size_t pending = 0;
  std::size_t dropped = 0;
};

// The part of an export that does not depend on the type of its messages.
class ZORVIX_EXPORT Sender {
 public:
  Sender(Connection& connection, const std::string& name, Kind kind, KeepLast keep);
  ~Sender();
  Sender(const Sender&) = delete;

  bool Suppressed(const void* message) const;
  void Push(std::string text);
  void Reject();
  // Messages that the broker has not acknowledged, and those that never reach it.
  Amounts Count() const;

 private:
  struct Parts;
  const std::shared_ptr<Core> core_;
  const std::shared_ptr<Parts> parts_;
};

template <typename Message>
void Send(Sender& sender, const Writer<Message>& write, const Message& message) {
  if (sender.Suppressed(&message)) return;
  try {
    sender.Push(write(message));
  } catch (const std::exception&) {
    sender.Reject();
  }
}

// An export. The source's callable shares the sender, since it may destroy its own export.
template <typename Source>
struct Exporting {
  template <typename Described, typename Message>
  Exporting(Connection& connection, const Described& described, Kind kind, Writer<Message> write,
            KeepLast keep)
      : sender(std::make_shared<Sender>(connection, described.name, kind, keep)),
        listing("Export", described.name, zorvix::detail::this_module,
                [this, depth = keep.depth] {
                  const Amounts amounts = sender->Count();
                  return zorvix::detail::Counts{amounts.pending, depth, amounts.dropped};
                }),
        source(described, [shared = sender, write = std::move(write)](const Message& message) {
          Send(*shared, write, message);
        }) {}
  const std::shared_ptr<Sender> sender;
  const zorvix::detail::Listing listing;
  const Source source;  // destroyed first: nothing is sent any more
};

// Returns what stops the import when it is destroyed.
ZORVIX_EXPORT std::shared_ptr<void> StartImport(Connection& connection, const std::string& name,
                                                Kind kind, Handler handler,
                                                zorvix::detail::Module& module);

template <typename Message>
std::shared_ptr<void> ImportTopic(Connection& connection, const Topic<Message>& topic,
                                  Reader<Message> read) {
  const auto publisher = std::make_shared<const ImportedTopic>(topic.name);
  const auto handle = [publisher, read = std::move(read)](const std::string& text) {
    std::optional<Message> message = read(text);
    if (!message) return false;
    std::any any(std::in_place_type<Message>, *std::move(message));
    publisher->Publish(std::move(any), std::any_cast<Message>(&any));
    return true;
  };
  return StartImport(connection, topic.name, Kind::kTopic, handle, zorvix::detail::this_module);
}

template <typename Value>
std::shared_ptr<void> ImportState(Connection& connection, const State<Value>& state,
                                  Reader<Value> read) {
  const auto holder = std::make_shared<std::optional<Holder<Value>>>(Holder<Value>(state));
  const auto handle = [holder, state, read = std::move(read)](const std::string& text) {
    if (text.empty()) {
      holder->reset();
      holder->emplace(state);
      return true;
    }
    std::optional<Value> value = read(text);
    if (!value) return false;
    (*holder)->Set(*std::move(value));
    return true;
  };
  return StartImport(connection, state.name, Kind::kState, handle, zorvix::detail::this_module);
}

}  // namespace detail

}  // namespace mqtt
}  // namespace zorvix

#endif  // ZORVIX_MQTT_DETAIL_H_
