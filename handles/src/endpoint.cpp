#include "endpoint.h"

#include <cstring>
#include <list>
#include <map>
#include <new>
#include <string_view>
#include <unordered_map>

#include "match_queue.h"
#include "type_names.h"

namespace zorvix::detail {
namespace {

// Returns the type's name with its article, such as "an app::Reading".
std::string NameOf(const std::type_info& type) {
  const std::string name = NameOfType(type);
  const bool vowel = !name.empty() && std::strchr("aeiouAEIOU", name[0]) != nullptr;
  return (vowel ? "an " : "a ") + name;
}

// Returns such as "publisher: libaudio.so".
std::string ModulePart(const TypeMismatch::Side& side) {
  return std::string(side.role) + ": " +
         (side.module == nullptr ? "without a handle" : side.module);
}

template <typename Base>
class Copied final : public Base {
 public:
  explicit Copied(const std::exception& error) : text_(error.what()) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  const std::string text_;
};

// Unregisters an endpoint. The bridge allocates for that. If it cannot, the name stays registered,
// and its control exists for ever, so that no other one gets its address, by which the bridge would
// find what has been registered under it.
template <typename Function>
void Unregister(Control& control, const Function& unregister) noexcept {
  if (IsExiting(control->name)) return;
  try {
    unregister(control);
  } catch (const std::bad_alloc&) {
    if (control == nullptr) return;
    BRIDGE_LOG(bridge::kLogWarn, "a name stays registered, since there is no memory, name: %s",
               control->name.c_str());
    alignas(Control) unsigned char never_destroyed[sizeof(Control)];
    ::new (never_destroyed) Control(std::move(control));
  }
}

// What handles have registered under one name.
struct Entry {
  std::size_t counterparts = 0;            // servers or counted subscriptions
  std::list<ServerRegistration*> servers;  // in the order of their registration
  std::map<std::uint64_t, std::shared_ptr<MatchQueue>> queues;  // of watches, by their numbers

  bool IsEmpty() const { return counterparts == 0 && queues.empty(); }
};

// An entry exists while one of its counterparts or watches does, which keep the name's address.
class Registry {
 public:
  static Registry& Get() {
    static Registry& registry = *new Registry;
    return registry;
  }

  // Calls do_register(entry) under the mutex, so that nobody sees a registration that is not
  // counted.
  template <typename Function>
  void Add(Name name, const Function& do_register) {
    std::uint64_t last_watch = 0;
    {
      const Lock lock(mutex_);
      Entry& entry = entries_[name];
      try {
        do_register(entry);
      } catch (...) {
        EraseIfEmpty(name);
        throw;
      }
      ++entry.counterparts;
      if (!entry.queues.empty()) last_watch = last_watch_;
      added_.NotifyAll();
    }
    if (last_watch != 0) Announce(name, Change::kArrival, last_watch);
  }

  // Calls do_unregister(entry) under the mutex.
  template <typename Function>
  void Remove(Name name, const Function& do_unregister) noexcept {
    std::uint64_t last_watch = 0;
    {
      const Lock lock(mutex_);
      Entry& entry = entries_.find(name)->second;
      do_unregister(entry);
      --entry.counterparts;
      if (!entry.queues.empty()) last_watch = last_watch_;
      EraseIfEmpty(name);
    }
    if (last_watch != 0) Announce(name, Change::kDeparture, last_watch);
  }

  // Returns the number of the watch. `existing`: how many counterparts there are.
  std::uint64_t AddWatch(Name name, std::shared_ptr<MatchQueue> queue, std::size_t& existing) {
    const Lock lock(mutex_);
    Entry& entry = entries_[name];
    try {
      entry.queues.emplace(last_watch_ + 1, std::move(queue));
    } catch (...) {
      EraseIfEmpty(name);
      throw;
    }
    existing = entry.counterparts;
    return ++last_watch_;
  }

  void RemoveWatch(Name name, std::uint64_t number) {
    std::shared_ptr<MatchQueue> queue;  // released under no lock
    const Lock lock(mutex_);
    auto& queues = entries_.find(name)->second.queues;
    const auto found = queues.find(number);
    queue.swap(found->second);
    queues.erase(found);
    EraseIfEmpty(name);
  }

  bool HasServer(Name name) {
    const Lock lock(mutex_);
    return HasCounterpart(name);
  }

  bool WaitForCounterpart(Name name, Clock::time_point end) {
    Lock lock(mutex_);
    bool is_over = false;
    while (!HasCounterpart(name) && !is_over) is_over = !added_.WaitUntil(lock, end);
    return HasCounterpart(name);
  }

 private:
  // Adds the change to the queues of the watches that existed when it happened. Those are found one
  // after the other, under the mutex, since callables may add and remove watches, and since a
  // destructor has no memory for a list of them. Noexcept: what a callable throws that is no
  // std::exception must not keep a destructor from its end.
  void Announce(Name name, Change change, std::uint64_t last_watch) noexcept {
    std::uint64_t number = 0;
    while (const auto queue = NextQueue(name, last_watch, number)) queue->Add(change);
  }

  // Returns the first one after `number`, which becomes its number, or null.
  std::shared_ptr<MatchQueue> NextQueue(Name name, std::uint64_t last, std::uint64_t& number) {
    const Lock lock(mutex_);
    const auto entry = entries_.find(name);
    if (entry == entries_.end()) return nullptr;
    const auto next = entry->second.queues.upper_bound(number);
    if (next == entry->second.queues.end() || next->first > last) return nullptr;
    number = next->first;
    return next->second;
  }

  bool HasCounterpart(Name name) const ZORVIX_REQUIRES(mutex_) {
    const auto entry = entries_.find(name);
    return entry != entries_.end() && entry->second.counterparts != 0;
  }

  void EraseIfEmpty(Name name) ZORVIX_REQUIRES(mutex_) {
    const auto entry = entries_.find(name);
    if (entry->second.IsEmpty()) entries_.erase(entry);
  }

  Mutex mutex_;
  Condition added_;
  std::unordered_map<Name, Entry> entries_ ZORVIX_GUARDED_BY(mutex_);
  std::uint64_t last_watch_ ZORVIX_GUARDED_BY(mutex_) = 0;
};

}  // namespace

std::atomic<bool> is_exiting{false};

bridge::Zorvix& MakeBridge() {
  // Destroyed right after the bridge, if that has not existed before.
  static const struct Exit {
    ~Exit() { is_exiting = true; }
  } exit;
  return bridge::Zorvix::GetInstance();
}

void LogExit(const std::string& name) {
  static std::atomic<bool> is_logged{false};
  if (is_logged.exchange(true)) return;
  BRIDGE_LOG(bridge::kLogError,
             "a handle is used at process exit, after the bridge may have been destroyed, name: %s",
             name.c_str());
}

TypeMismatch::TypeMismatch(const char* what, const Side& given, const Side& wanted)
    : text_(std::string("bad any_cast: the ") + what + " is " + NameOf(given.type) + ", the " +
            wanted.role + " takes " + NameOf(wanted.type) + ", " + ModulePart(given) + ", " +
            ModulePart(wanted)) {}

const char* ModuleOfPublisher(const std::string& name, const std::type_info& type) {
  Process& process = Process::Get();
  const Lock lock(process.mutex);
  for (const Record* const record : process.records) {
    const bool is_publisher = std::string_view(record->kind) == "Publisher";
    if (is_publisher && record->name == name && *record->message_type == type) {
      return record->module;
    }
  }
  return nullptr;
}

void ThrowCopy(const std::exception& error) {
  if (dynamic_cast<const std::bad_cast*>(&error) != nullptr) throw Copied<std::bad_cast>(error);
  throw Copied<std::exception>(error);
}

Participant::Participant(const std::string& name, bridge::BridgeModule module,
                         bridge::BridgeType type)
    : control(std::make_shared<const bridge::Control>(bridge::Control{name, module, type})),
      is_topic(module == bridge::BridgeModule::Topic) {
  if (is_topic) {
    Bridge().RegisterPublisher(control);
  } else {
    Bridge().RegisterClient(control);
  }
}

Participant::~Participant() {
  if (control == nullptr) return;
  Unregister(control, [this](Control& its) {
    if (is_topic) {
      Bridge().UnregisterPublisher(its);
    } else {
      Bridge().UnregisterClient(its);
    }
  });
}

Subscription::Subscription(const std::string& topic, bridge::BridgeType type,
                           SubscriberFunction function, Counting counting)
    : callback(std::make_shared<SubscriberFunction>(std::move(function))),
      participant(topic, bridge::BridgeModule::Topic, type),
      counted_as(counting == Counting::kCounted ? participant.control.get() : nullptr) {
  if (counted_as != nullptr) {
    Registry::Get().Add(
        counted_as, [this](Entry&) { Bridge().RegisterSubscriber(participant.control, callback); });
  } else {
    Bridge().RegisterSubscriber(participant.control, callback);
  }
}

Subscription::~Subscription() {
  if (counted_as != nullptr) {
    Registry::Get().Remove(counted_as, [this](Entry&) { Unregister(); });
  } else {
    Unregister();
  }
}

void Subscription::Unregister() {
  const auto handle = reinterpret_cast<unsigned long>(callback.get());
  detail::Unregister(participant.control, [handle](Control& control) {
    Bridge().UnregisterSubscriber(control, handle);
  });
}

ServerRegistration::ServerRegistration(const std::string& service, bridge::BridgeType type,
                                       ServerFunction function, const Record& its_record)
    : callback(std::make_shared<ServerFunction>(std::move(function))),
      participant(service, bridge::BridgeModule::Service, type),
      name(participant.control.get()),
      record(its_record) {
  std::list<ServerRegistration*> added{this};
  const char* replaced = nullptr;
  Registry::Get().Add(name, [&](Entry& entry) {
    ServerRegistration* const before = entry.servers.empty() ? nullptr : entry.servers.back();
    if (before != nullptr && before->IsActive()) replaced = before->record.module;
    Bridge().RegisterServer(participant.control, callback);
    if (before != nullptr) before->is_latest = false;
    entry.servers.splice(entry.servers.end(), added);
    is_latest = true;
  });
  if (replaced == nullptr) return;
  BRIDGE_LOG(bridge::kLogWarn,
             "a handle replaces another, kind: %s, name: %s, module: %s, replaced: %s", record.kind,
             record.name.c_str(), record.module, replaced);
}

ServerRegistration::~ServerRegistration() {
  const char* successor = nullptr;
  Registry::Get().Remove(name, [&](Entry& entry) {
    entry.servers.remove(this);
    ServerRegistration* const next = entry.servers.empty() ? nullptr : entry.servers.back();
    if (next != nullptr) next->is_latest = true;
    // If nobody else shares the callback, the bridge does not have it any more: a server without a
    // handle has replaced it, or the one call of a SignleAsync service has removed it.
    if (!IsActive() || IsExiting(record.name)) return;
    if (next != nullptr) successor = next->record.module;
    Unregister(participant.control, [next](Control& control) {
      if (next == nullptr) {
        Bridge().UnregisterServer(control, 0);
      } else {
        Bridge().RegisterServer(control, next->callback);
      }
    });
  });
  if (successor == nullptr) return;
  BRIDGE_LOG(bridge::kLogWarn,
             "an earlier handle takes over again, kind: %s, name: %s, module: %s, destroyed: %s",
             record.kind, record.name.c_str(), successor, record.module);
}

Watch::Watch(Name name, std::shared_ptr<MatchQueue> queue) : name_(name) {
  number_ = Registry::Get().AddWatch(name, std::move(queue), existing_);
}

Watch::~Watch() { Registry::Get().RemoveWatch(name_, number_); }

bool HasServer(const Participant& client) {
  return Registry::Get().HasServer(client.control.get());
}

bool WaitForServerOf(const Participant& client, Clock::time_point end) {
  return Registry::Get().WaitForCounterpart(client.control.get(), end);
}

}  // namespace zorvix::detail
