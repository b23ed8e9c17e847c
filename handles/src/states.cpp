// Holders and watchers of states.
//
// A holder publishes each value on a topic, and answers watchers that are constructed later as a
// server. A watcher subscribes first and asks then, or it would miss a value that is set between.
#include <zorvix/detail/library.h>

#include <algorithm>
#include <any>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <typeinfo>
#include <utility>

#include "endpoint.h"
#include "gate.h"
#include "waits.h"
#include "watch_queue.h"

namespace zorvix::detail {
namespace {

// Takes a value. Its destructor, if it has one, is in the holder's module.
std::shared_ptr<const void> Share(const void* value, void (*destroy)(const void*),
                                  const std::shared_ptr<ValueOwner>& owner) {
  if (destroy == nullptr) {
    return {value, [](const void* its) { ::operator delete(const_cast<void*>(its)); }};
  }
  owner->AddValue();  // taken back below, even if this fails
  return {value, [destroy, owner](const void* its) { owner->DestroyValue(its, destroy); }};
}

// The latest version of a holder. Answers that are in progress share it with the holder.
class HeldVersion {
 public:
  HeldVersion(const std::type_info& type, const char* holder) : type_(type), holder_(holder) {}
  const std::type_info& type() const { return type_; }

  // Numbers the version and stores it. Returns the version before.
  Version Store(Version& version) {
    const auto now = Clock::now().time_since_epoch().count();
    const Lock lock(mutex_);
    // Versions of a later holder have higher numbers.
    version.number = std::max(static_cast<std::uint64_t>(now), latest_.number + 1);
    return std::exchange(latest_, version);
  }

  // Undoes the store of a version, unless a later one has been stored meanwhile.
  void Restore(std::uint64_t number, Version previous) {
    const Lock lock(mutex_);
    if (latest_.number == number) std::swap(latest_, previous);
  }

  // The request is the watcher, with the type of its values. The response has the address of the
  // watcher's version, so that an answer needs no allocation, which might fail.
  void Answer(const std::any& request, const std::any& response) {
    const Gate::Pass pass(gate_);
    if (!pass.admitted()) return;
    const auto& watcher = *std::any_cast<const TypeMismatch::Side*>(request);
    if (watcher.type != type_) throw TypeMismatch("value", {"holder", type_, holder_}, watcher);
    Version latest;
    {
      const Lock lock(mutex_);
      latest = latest_;
    }
    *std::any_cast<Version*>(response) = std::move(latest);
  }

  // Afterwards nobody uses the type.
  void Close(const Record& holder) {
    gate_.Close(holder, nullptr);
    Version last;  // destroyed under no lock
    const Lock lock(mutex_);
    std::swap(latest_, last);
  }

 private:
  const std::type_info& type_;  // of the holder's module
  const char* const holder_;    // its name
  Gate gate_;
  Mutex mutex_;
  Version latest_ ZORVIX_GUARDED_BY(mutex_);
};

}  // namespace

std::string StateName(const std::string& name) { return name + "/zorvix.state"; }

struct HolderState : Record {
  HolderState(const Endpoint& endpoint, const std::string& state_name, const std::type_info& type)
      : Record("Holder", endpoint.name, endpoint.module),
        values{*this, std::make_shared<ValueOwner>(endpoint.module)},
        held{*this, std::make_shared<HeldVersion>(type, module)},
        publisher(state_name, bridge::BridgeModule::Topic, bridge::BridgeType::Sync),
        optional_audience(state_name, bridge::BridgeType::Sync, [](const std::any&) {}),
        server(
            state_name, bridge::BridgeType::Sync,
            [version = held.version](const std::any& request, std::any& response) {
              version->Answer(request, response);
            },
            *this),
        listed(Describe(type)) {}

  struct Closer {
    ~Closer() { version->Close(holder); }
    const Record& holder;
    const std::shared_ptr<HeldVersion> version;
  };
  struct Values {
    ~Values() { owner->EndHolder(holder); }
    const Record& holder;
    const std::shared_ptr<ValueOwner> owner;
  };
  const Values values;  // destroyed last
  const Closer held;
  const Participant publisher;
  const Subscription optional_audience;
  const ServerRegistration server;
  const Listed listed;

 private:
  Record& Describe(const std::type_info& type) {
    message_type = &type;
    participant = &server.participant;
    Record::server = &server;
    return *this;
  }
};

struct WatcherState {
  template <typename Function>
  WatcherState(const Endpoint& endpoint, const std::string& state_name,
               std::shared_ptr<WatchQueue> queue, Function push)
      : client(state_name, bridge::BridgeModule::Service, bridge::BridgeType::Sync),
        receiver(Describe(std::move(queue), client),
                 {state_name, bridge::BridgeType::Sync, endpoint.module}, std::move(push)) {}
  WatchQueue& queue() const { return static_cast<WatchQueue&>(*receiver.closer.receiver); }

  // Pushes the holder's version, if there is a holder. One that is constructed later publishes what
  // is set.
  void AskHolder(const std::type_info& type) const {
    if (!HasServer(client)) return;
    Version latest;
    const TypeMismatch::Side watcher = {"watcher", type, queue().module};
    const std::any request(&watcher);
    Bridge().Call(client.control, [&](auto& serve) {
      std::any response(&latest);
      serve(request, response);
    });
    queue().Push(std::move(latest));
  }

  const Participant client;
  const Registered<Subscription> receiver;

 private:
  // The handles of a state match by the name of its service, which its presences have, too.
  static std::shared_ptr<WatchQueue> Describe(std::shared_ptr<WatchQueue> queue,
                                              const Participant& client) {
    queue->participant = &client;
    return queue;
  }
};

void Destroyer::operator()(HolderState* state) const { delete state; }
void Destroyer::operator()(WatcherState* state) const { delete state; }

Owned<HolderState> MakeHolder(const Endpoint& endpoint, const std::type_info& type) {
  return Owned<HolderState>(new HolderState(endpoint, StateName(endpoint.name), type));
}

void Set(HolderState& holder, const void* value, void (*destroy)(const void*)) {
  const Section section("Set", holder.name);
  HeldVersion& held = *holder.held.version;
  holder.sent.Add();
  Version version{0, Share(value, destroy, holder.values.owner), &held.type(), holder.module};
  // Stored before it is published, so that a watcher that asks later gets it.
  Version before = held.Store(version);
  try {
    if (IsExiting(holder.name)) return;
    Bridge().Publish(holder.publisher.control, static_cast<const Version*>(&version));
  } catch (const std::bad_alloc&) {
    // Thrown by the bridge before it has invoked anybody: it contains what callables throw.
    held.Restore(version.number, std::move(before));
    throw;
  }
}

Owned<WatcherState> MakeWatcher(const Endpoint& endpoint, const std::type_info& type,
                                Callable callable, const Place& place) {
  const auto queue =
      std::make_shared<WatchQueue>(endpoint, StrandOrDirect(place, endpoint), std::move(callable));
  queue->message_type = &type;
  const auto push = [queue, &type](const std::any& message) {
    const auto* const version = std::any_cast<const Version*>(&message);
    if (version == nullptr) {
      throw TypeMismatch("message", {"publisher", message.type(), nullptr},
                         {"watcher", typeid(const Version*), queue->module});
    }
    queue->CheckType(**version, type);
    queue->Push(**version);
  };
  Owned<WatcherState> watcher(new WatcherState(endpoint, StateName(endpoint.name), queue, push));
  watcher->AskHolder(type);
  return watcher;
}

std::shared_ptr<const void> Latest(const WatcherState& watcher) { return watcher.queue().Latest(); }

std::shared_ptr<const void> WaitForValue(const WatcherState& watcher, Timeout timeout) {
  WatchQueue& queue = watcher.queue();
  std::shared_ptr<const void> value;
  const auto wait = [&](Clock::time_point until) {
    value = queue.WaitForValue(until);
    return value != nullptr;
  };
  WaitAndLog(Deadline(timeout), wait,
             [&](int seconds, auto) { LogWaiting("a watcher waits for a value", queue, seconds); });
  return value;
}

}  // namespace zorvix::detail
