// Registrations with the bridge that end with their object.
#ifndef ZORVIX_HANDLES_ENDPOINT_H_
#define ZORVIX_HANDLES_ENDPOINT_H_

#include <zorvix/zorvix.h>

#include <any>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <typeinfo>
#include <utility>

#include "records.h"
#include "sync.h"

namespace zorvix::detail {

class MatchQueue;

// Constructs the bridge, unless it exists.
bridge::Zorvix& MakeBridge();

// A reference of the library's own, since GetInstance is a call of another library.
inline bridge::Zorvix& Bridge() {
  static bridge::Zorvix& bridge = MakeBridge();
  return bridge;
}

// What the bridge logs when an endpoint gets a value of another type.
class TypeMismatch final : public std::bad_any_cast {
 public:
  // One of the two: its role such as "subscriber", and its module, or null if it has no handle.
  struct Side {
    const char* role;
    const std::type_info& type;
    const char* module;
  };
  // `what` such as "message".
  TypeMismatch(const char* what, const Side& given, const Side& wanted);
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  const std::string text_;
};

// Returns the module of a publisher of that name and type, or null if none has a handle.
const char* ModuleOfPublisher(const std::string& name, const std::type_info& type);

// At process exit: the bridge has been destroyed, or is next.
extern std::atomic<bool> is_exiting;
void LogExit(const std::string& name);

// Returns whether the bridge must not be used any more. Then logs that, once.
inline bool IsExiting(const std::string& name) {
  if (!is_exiting.load(std::memory_order_relaxed)) return false;
  LogExit(name);
  return true;
}

// Throws an exception with the same text as one that code of a module has thrown. The bridge logs
// it later, when that code may have been unloaded.
[[noreturn]] void ThrowCopy(const std::exception& error);

// The topic and the service of a state have a name of their own, so that a user's topic or service
// of the same name does not match them.
std::string StateName(const std::string& name);

using Control = std::shared_ptr<const bridge::Control>;
using SubscriberFunction = std::function<void(const std::any&)>;
using ServerFunction = std::function<void(const std::any&, std::any&)>;

// Registers a name as publisher or client, and unregisters it unless `control` has been emptied.
// The registrations below allocate all they need before: so a failure has no effect.
struct Participant {
  Participant(const std::string& name, bridge::BridgeModule module, bridge::BridgeType type);
  ~Participant();
  Participant(const Participant&) = delete;
  Participant& operator=(const Participant&) = delete;

  Control control;
  const bool is_topic;
};

// All endpoints of a real name share this address while one of them exists.
using Name = const bridge::Control*;

// Whether presences count a subscription.
enum class Counting { kNotCounted, kCounted };

struct Subscription {
  Subscription(const std::string& topic, bridge::BridgeType type, SubscriberFunction function,
               Counting counting = Counting::kNotCounted);
  ~Subscription();
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  // Kept until the end, so that no other subscriber gets its address, by which it is unregistered.
  const bridge::SubscriberCallback callback;
  Participant participant;
  const Name counted_as;  // null: it is not counted

 private:
  void Unregister();
};

struct CountedSubscription : Subscription {
  CountedSubscription(const std::string& topic, bridge::BridgeType type,
                      SubscriberFunction function)
      : Subscription(topic, type, std::move(function), Counting::kCounted) {}
};

// The bridge has one server for each name. If it is destroyed, the latest one that still exists
// takes over.
struct ServerRegistration {
  // The record is that of its handle, and lives longer.
  ServerRegistration(const std::string& service, bridge::BridgeType type, ServerFunction function,
                     const Record& record);
  ~ServerRegistration();
  ServerRegistration(const ServerRegistration&) = delete;
  ServerRegistration& operator=(const ServerRegistration&) = delete;

  // Whether it is the one that is called.
  bool IsActive() const { return is_latest && callback.use_count() > 1; }

  const bridge::ServerCallback callback;
  Participant participant;
  const Name name;
  const Record& record;
  // Of the server handles of its name. Written under the mutex of the registry.
  Atomic<bool> is_latest{false};
};

// Adds to a queue each server or counted subscription of a name that registers or unregisters from
// now on.
class Watch {
 public:
  Watch(Name name, std::shared_ptr<MatchQueue> queue);
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  std::size_t existing() const { return existing_; }  // when it was constructed

 private:
  const Name name_;
  std::uint64_t number_ = 0;
  std::size_t existing_ = 0;
};

// Whether the client's service has a server handle.
bool HasServer(const Participant& client);

// Blocks until the client's service has a server handle, or until `end`. Returns whether it has.
bool WaitForServerOf(const Participant& client, Clock::time_point end);

// A receiver that is registered. First the registration ends, and then the receiver is closed.
template <typename Registration>
struct Registered {
  // `more`: what else the registration is constructed with.
  template <typename Function, typename... More>
  Registered(std::shared_ptr<Receiver> its_receiver, const Endpoint& endpoint, Function function,
             const More&... more)
      : closer{SetInvoker(std::move(its_receiver), endpoint.type)},
        registration(endpoint.name, endpoint.type, std::move(function), more...),
        listed(Describe(*closer.receiver, registration)) {}

  struct Closer {
    ~Closer() { receiver->Close(); }
    const std::shared_ptr<Receiver> receiver;
  };
  const Closer closer;
  const Registration registration;
  const Listed listed;

 private:
  static Record& Describe(Record& record, const Subscription& subscription) {
    if (record.participant == nullptr) record.participant = &subscription.participant;
    return record;
  }
  static Record& Describe(Record& record, const ServerRegistration& server) {
    record.participant = &server.participant;
    record.server = &server;
    return record;
  }
  // What the bridge delivers in a task is invoked by the task, unless a strand takes it.
  static std::shared_ptr<Receiver> SetInvoker(std::shared_ptr<Receiver> receiver,
                                              bridge::BridgeType type) {
    if (type != bridge::BridgeType::Sync && receiver->invoker == Record::Invoker::kDelivery) {
      receiver->invoker = Record::Invoker::kTask;
    }
    return receiver;
  }
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_ENDPOINT_H_
