// The payloads that modules exchange, each under a name of its own, and what modules export.
#ifndef ZORVIX_TESTS_MODULES_PAYLOAD_H_
#define ZORVIX_TESTS_MODULES_PAYLOAD_H_

#include <zorvix/typed.h>

#include <tuple>

enum class Color { Red = 3 };

struct Reading {
  std::string unit;
  int value;
  bool operator==(const Reading& other) const { return unit == other.unit && value == other.value; }
};

inline auto Payloads() {
  const Reading reading{"a unit too long to be stored inside a string", 7};
  return std::make_tuple(42, std::string("text"), std::vector<std::string>{"a", "b"}, Color::Red,
                         reading, std::optional<Reading>(reading));
}
constexpr int kPayloads = std::tuple_size_v<decltype(Payloads())>;

// Calls `use` with the name and the value of each payload.
template <typename Function>
void ForEachPayload(Function use) {
  int number = 0;
  std::apply([&](auto... payload) { (use("payload" + std::to_string(++number), payload), ...); },
             Payloads());
}

#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))

// Of the receiver: subscribes and serves; the number of payloads received right; leaves.
MODULE_EXPORT void Start(bridge::BridgeType type);
MODULE_EXPORT int Received();
MODULE_EXPORT void Stop();

// Of senders: publishes each payload to a Sync or Async topic and calls a service with each.
// Returns how many publications and calls were accepted. `library` is the bridge's, for dlsym.
MODULE_EXPORT int Send(bridge::BridgeType type, void* library);
MODULE_EXPORT int Answered();  // right

// Of the modules with a state: sets it; returns the newest value, or 0; leaves.
MODULE_EXPORT void Hold(int value);
MODULE_EXPORT int Watch();
MODULE_EXPORT void Leave();

#endif  // ZORVIX_TESTS_MODULES_PAYLOAD_H_
