#include "endpoint.h"

#include <cxxabi.h>

#include <cstdlib>
#include <cstring>
#include <list>
#include <new>
#include <unordered_map>

namespace zorvix::detail {
namespace {

// Returns the type's name with its article, such as "an app::Reading".
std::string NameOf(const std::type_info& type) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  const std::string name = demangled == nullptr ? type.name() : demangled.get();
  const bool vowel = !name.empty() && std::strchr("aeiouAEIOU", name[0]) != nullptr;
  return (vowel ? "an " : "a ") + name;
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

// The server handles of each service, by real name, in the order of their registration.
struct Servers {
  using Handles = std::list<ServerRegistration*>;

  static Servers& Get() {
    static Servers& servers = *new Servers;
    return servers;
  }
  Mutex mutex;
  std::unordered_map<std::string, Handles> by_name ZORVIX_GUARDED_BY(mutex);
};

}  // namespace

TypeMismatch::TypeMismatch(const char* what, const std::type_info& given, const char* who,
                           const std::type_info& wanted)
    : text_(std::string("bad any_cast: the ") + what + " is " + NameOf(given) + ", the " + who +
            " takes " + NameOf(wanted)) {}

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
                           SubscriberFunction function)
    : callback(std::make_shared<SubscriberFunction>(std::move(function))),
      participant(topic, bridge::BridgeModule::Topic, type) {
  Bridge().RegisterSubscriber(participant.control, callback);
}

Subscription::~Subscription() {
  const auto handle = reinterpret_cast<unsigned long>(callback.get());
  Unregister(participant.control,
             [handle](Control& control) { Bridge().UnregisterSubscriber(control, handle); });
}

ServerRegistration::ServerRegistration(const std::string& service, bridge::BridgeType type,
                                       ServerFunction function)
    : callback(std::make_shared<ServerFunction>(std::move(function))),
      participant(service, bridge::BridgeModule::Service, type),
      real_name(bridge::Zorvix::GetRealName(participant.control)) {
  Servers& servers = Servers::Get();
  const Lock lock(servers.mutex);
  Servers::Handles added{this};
  const auto [entry, inserted] = servers.by_name.try_emplace(real_name);
  try {
    Bridge().RegisterServer(participant.control, callback);
  } catch (...) {
    if (inserted) servers.by_name.erase(entry);
    throw;
  }
  entry->second.splice(entry->second.end(), added);
}

ServerRegistration::~ServerRegistration() {
  Servers& servers = Servers::Get();
  const Lock lock(servers.mutex);
  const auto entry = servers.by_name.find(real_name);
  auto& handles = entry->second;
  const bool is_latest = handles.back() == this;
  handles.remove(this);
  ServerRegistration* const next = handles.empty() ? nullptr : handles.back();
  if (next == nullptr) servers.by_name.erase(entry);
  // If nobody else shares the callback, the bridge does not have it any more: a server without a
  // handle has replaced it, or the one call of a SignleAsync service has removed it.
  if (!is_latest || callback.use_count() == 1) return;
  Unregister(participant.control, [next](Control& control) {
    if (next == nullptr) {
      Bridge().UnregisterServer(control, 0);
    } else {
      Bridge().RegisterServer(control, next->callback);
    }
  });
}

}  // namespace zorvix::detail
