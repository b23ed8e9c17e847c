// The payloads that modules exchange, each under an endpoint of its own, and what modules export.
#ifndef ZORVIX_TESTS_MODULES_PAYLOAD_H_
#define ZORVIX_TESTS_MODULES_PAYLOAD_H_

#include <zorvix/zorvix.h>

#include <string>
#include <tuple>
#include <vector>

enum class Color { Red = 3 };

struct Reading {
  std::string unit;
  int value;
  bool operator==(const Reading& other) const { return unit == other.unit && value == other.value; }
};

inline bool Equal(const std::shared_ptr<Reading>& left, const std::shared_ptr<Reading>& right) {
  return *left == *right;
}
template <typename Payload>
bool Equal(const Payload& left, const Payload& right) {
  return left == right;
}

inline auto Payloads() {
  const Reading reading{"a unit too long to be stored inside a string", 7};
  return std::make_tuple(42, std::string("text"), std::vector<std::string>{"a", "b"}, Color::Red,
                         reading, std::make_shared<Reading>(reading));
}
constexpr int kPayloads = std::tuple_size_v<decltype(Payloads())>;

// Calls `use` with each payload and the control of its endpoint.
template <typename Function>
void ForEachPayload(bridge::BridgeModule module, bridge::BridgeType type, Function use) {
  int number = 0;
  const auto use_one = [&](const auto& payload) {
    std::shared_ptr<const bridge::Control> control = std::make_shared<bridge::Control>(
        bridge::Control{"payload" + std::to_string(++number), module, type});
    use(std::move(control), payload);  // leaves no other owner
  };
  std::apply([&](const auto&... payload) { (use_one(payload), ...); }, Payloads());
}

#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))

// Of receivers: subscribe and serve; the number of payloads received right; leave.
MODULE_EXPORT void Start(bridge::BridgeType type);
MODULE_EXPORT int Received();
MODULE_EXPORT void Stop();

// Of senders: publishes each payload to a Sync or Async topic, calls a service with each and
// leaves. Returns how many publications and calls were accepted. `library` is the bridge's, for
// dlsym.
MODULE_EXPORT int Send(bridge::BridgeType type, void* library);
// Returns the number of payloads that came back right from the services.
MODULE_EXPORT int Answered();

#endif  // ZORVIX_TESTS_MODULES_PAYLOAD_H_
