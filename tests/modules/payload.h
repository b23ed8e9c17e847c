// The payloads that modules exchange, each under a name of its own, and what modules export.
#ifndef ZORVIX_TESTS_MODULES_PAYLOAD_H_
#define ZORVIX_TESTS_MODULES_PAYLOAD_H_

#include <dlfcn.h>
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
constexpr int kExchanges = 2 * std::tuple_size_v<decltype(Payloads())>;

// Calls `use` with the name, the value and the type of each exchange.
template <typename Function>
void ForEachExchange(Function use) {
  int number = 0;
  const auto use_all = [&](auto type) {
    std::apply(
        [&](auto... payload) { (use("payload" + std::to_string(++number), payload, type), ...); },
        Payloads());
  };
  using bridge::BridgeType;
  use_all(std::integral_constant<BridgeType, BridgeType::Sync>());
  use_all(std::integral_constant<BridgeType, BridgeType::Async>());
}

#define BIND(library, name) reinterpret_cast<decltype(&name)>(dlsym(library, #name))
#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))

// Publishes each payload and calls a service with it. Returns how many publications were accepted
// and how many answers were right. `library` is the bridge's, for who is not linked with it.
MODULE_EXPORT int Send(void* library);

// Only of modules that are linked with the bridge:
MODULE_EXPORT void Receive();  // subscribes and serves
MODULE_EXPORT int Received();  // returns the number of payloads received right
MODULE_EXPORT void Hold(int);  // sets a state
MODULE_EXPORT int Watch();     // returns its newest value, or 0
MODULE_EXPORT void Leave();

#endif  // ZORVIX_TESTS_MODULES_PAYLOAD_H_
