// Registrations with the bridge that end with their object. Not for users: handles are made of it.
#ifndef ZORVIX_DETAIL_ENDPOINT_H_
#define ZORVIX_DETAIL_ENDPOINT_H_

#include <cxxabi.h>
#include <zorvix/detail/base.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <type_traits>
#include <typeinfo>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

template <typename Value>
constexpr bool kIsValue = std::is_same_v<Value, std::decay_t<Value>>&&
    std::is_copy_constructible_v<Value>&& std::is_move_constructible_v<Value>;

// Returns the type's name with its article, such as "an app::Reading".
inline std::string NameOf(const std::type_info& type) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  const std::string name = demangled == nullptr ? type.name() : demangled.get();
  const bool vowel = !name.empty() && std::strchr("aeiouAEIOU", name[0]) != nullptr;
  return (vowel ? "an " : "a ") + name;
}

// What the bridge logs when an endpoint gets a value of another type.
class TypeMismatch final : public std::bad_any_cast {
 public:
  // `what` such as "message", `who` such as "subscriber".
  TypeMismatch(const char* what, const std::type_info& given, const char* who,
               const std::type_info& wanted)
      : text_(std::string("bad any_cast: the ") + what + " is " + NameOf(given) + ", the " + who +
              " takes " + NameOf(wanted)) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  const std::string text_;
};

template <typename Value>
Value& Cast(std::any& any, const char* what, const char* who) {
  if (auto* const value = std::any_cast<Value>(&any)) return *value;
  throw TypeMismatch(what, any.type(), who, typeid(Value));
}
template <typename Value>
const Value& Cast(const std::any& any, const char* what, const char* who) {
  if (const auto* const value = std::any_cast<Value>(&any)) return *value;
  throw TypeMismatch(what, any.type(), who, typeid(Value));
}

using Control = std::shared_ptr<const bridge::Control>;
using SubscriberFunction = std::function<void(const std::any&)>;
using ServerFunction = std::function<void(const std::any&, std::any&)>;

inline Control DescribeTopic(const std::string& name, bridge::BridgeType type) {
  return Control(new bridge::Control{name, bridge::BridgeModule::Topic, type});
}

// Registers a name as publisher or client, and unregisters it unless `control` has been emptied.
// The registrations below allocate all they need before: so a failure leaves nothing behind.
struct Participant {
  explicit Participant(Control described)
      : control(std::move(described)),
        is_topic(control->bridge_module == bridge::BridgeModule::Topic) {
    if (is_topic) {
      Bridge().RegisterPublisher(control);
    } else {
      Bridge().RegisterClient(control);
    }
  }
  ~Participant() {
    if (control == nullptr) return;
    if (is_topic) {
      Bridge().UnregisterPublisher(control);
    } else {
      Bridge().UnregisterClient(control);
    }
  }
  Participant(const Participant&) = delete;
  Participant& operator=(const Participant&) = delete;

  Control control;
  const bool is_topic;
};

struct Subscription {
  Subscription(const std::string& topic, bridge::BridgeType type, SubscriberFunction function)
      : callback(std::make_shared<SubscriberFunction>(std::move(function))),
        participant(DescribeTopic(topic, type)) {
    Bridge().RegisterSubscriber(participant.control, callback);
  }
  ~Subscription() {
    const auto handle = reinterpret_cast<unsigned long>(callback.get());
    Bridge().UnregisterSubscriber(participant.control, handle);
  }
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  // Kept until the end, so that no other subscriber gets its address, by which it is unregistered.
  const bridge::SubscriberCallback callback;
  Participant participant;
};

// Who owns a service name. All participants of the name hold the control that one of them made, and
// find this in its deleter. So a server that is destroyed knows whether another one has replaced
// it.
class ServiceOwner {
 public:
  void Claim(Control& control, const bridge::ServerCallback& callback) {
    const std::lock_guard lock(mutex_);
    Bridge().RegisterServer(control, callback);
    current_ = callback.get();
  }
  void Release(Control& control, const bridge::ServerCallback& callback) {
    const std::lock_guard lock(mutex_);
    // If nobody else shares the callback, the bridge does not have it any more: a server without a
    // handle has replaced it.
    if (current_ == callback.get() && callback.use_count() > 1) {
      Bridge().UnregisterServer(control, 0);
    } else {
      Bridge().UnregisterClient(control);
    }
  }

 private:
  std::mutex mutex_;
  const void* current_ ZORVIX_GUARDED_BY(mutex_) = nullptr;
};

struct ServiceDeleter {
  void operator()(const bridge::Control* control) const { delete control; }
  std::shared_ptr<ServiceOwner> owner = std::make_shared<ServiceOwner>();
};

inline Control DescribeService(const std::string& name, bridge::BridgeType type) {
  ServiceDeleter deleter;
  return {new bridge::Control{name, bridge::BridgeModule::Service, type}, std::move(deleter)};
}

struct ServerRegistration {
  ServerRegistration(const std::string& service, bridge::BridgeType type, ServerFunction function)
      : callback(std::make_shared<ServerFunction>(std::move(function))),
        participant(DescribeService(service, type)) {
    if (auto* const deleter = std::get_deleter<ServiceDeleter>(participant.control)) {
      owner = deleter->owner;
    }
    owner->Claim(participant.control, callback);
  }
  ~ServerRegistration() { owner->Release(participant.control, callback); }
  ServerRegistration(const ServerRegistration&) = delete;
  ServerRegistration& operator=(const ServerRegistration&) = delete;

  const bridge::ServerCallback callback;
  Participant participant;
  // Its own, if a participant without a handle has made the control.
  std::shared_ptr<ServiceOwner> owner = std::make_shared<ServiceOwner>();
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_ENDPOINT_H_
