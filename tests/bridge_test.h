// What the tests of the bridge share: its operations as a table, once as methods and once as flat
// functions, and short ways to make endpoints and callbacks.
#ifndef ZORVIX_TESTS_BRIDGE_TEST_H_
#define ZORVIX_TESTS_BRIDGE_TEST_H_

#include <gtest/gtest.h>
#include <zorvix/zorvix.h>
#include <zorvix/zorvix_flat.h>

#include <condition_variable>
#include <mutex>

#include "log_capture.h"

using bridge::BridgeModule;
using bridge::BridgeType;
using bridge::Zorvix;
using Endpoint = std::shared_ptr<const bridge::Control>;
using ServerFunction = std::function<void(const std::any&, std::any&)>;

struct Api {
  const char* name;
  decltype(&ZorvixRegisterPublisher) register_publisher;
  decltype(&ZorvixUnregisterPublisher) unregister_publisher;
  decltype(&ZorvixRegisterSubscriber) register_subscriber;
  decltype(&ZorvixUnregisterSubscriber) unregister_subscriber;
  decltype(&ZorvixPublish) publish;
  decltype(&ZorvixRegisterClient) register_client;
  decltype(&ZorvixUnregisterClient) unregister_client;
  decltype(&ZorvixRegisterServer) register_server;
  decltype(&ZorvixUnregisterServer) unregister_server;
  decltype(&ZorvixCall) call;
  decltype(&ZorvixRunOneceStep) run_onece_step;
  decltype(&ZorvixSpinOnce) spin_once;
  decltype(&ZorvixSpin) spin;
  decltype(&ZorvixStopSpin) stop_spin;
};

inline std::ostream& operator<<(std::ostream& out, const Api& api) { return out << api.name; }

inline Zorvix& TheBridge() { return Zorvix::GetInstance(); }

inline const Api kMethods = {
    "method",
    [](auto& control) { TheBridge().RegisterPublisher(control); },
    [](auto& control) { TheBridge().UnregisterPublisher(control); },
    [](auto& control, auto& callback) { TheBridge().RegisterSubscriber(control, callback); },
    [](auto& control, auto handle) { TheBridge().UnregisterSubscriber(control, handle); },
    [](auto& control, std::any&& message) {
      return TheBridge().Publish(control, std::move(message));
    },
    [](auto& control) { TheBridge().RegisterClient(control); },
    [](auto& control) { TheBridge().UnregisterClient(control); },
    [](auto& control, auto& callback) { TheBridge().RegisterServer(control, callback); },
    [](auto& control) { TheBridge().UnregisterServer(control, 42); },
    [](auto& control, bridge::RequestCallback&& request) {
      return TheBridge().Call(control, std::move(request));
    },
    [] { return TheBridge().RunOneceStep(); },
    [] { TheBridge().SpinOnce(); },
    [](auto workers) { TheBridge().Spin(workers); },
    [] { TheBridge().StopSpin(); }};

// clang-format off
inline const Api kFlat = {"flat", ZorvixRegisterPublisher, ZorvixUnregisterPublisher,
    ZorvixRegisterSubscriber, ZorvixUnregisterSubscriber, ZorvixPublish, ZorvixRegisterClient,
    ZorvixUnregisterClient, ZorvixRegisterServer, ZorvixUnregisterServer, ZorvixCall,
    ZorvixRunOneceStep, ZorvixSpinOnce, ZorvixSpin, ZorvixStopSpin};
// clang-format on

template <typename Function>
bridge::SubscriberCallback Subscriber(Function function) {
  return std::make_shared<std::function<void(const std::any&)>>(std::move(function));
}

template <typename Function>
bridge::ServerCallback Server(Function function) {
  return std::make_shared<ServerFunction>(std::move(function));
}

template <typename Callback>
unsigned long Handle(const Callback& callback) {
  return reinterpret_cast<unsigned long>(callback.get());
}

// Opens once it has been counted down to zero.
class Latch {
 public:
  explicit Latch(int count = 1) : count_(count) {}
  void CountDown() {
    const std::lock_guard lock(mutex_);
    if (--count_ == 0) opened_.notify_all();
  }
  void Wait() {
    std::unique_lock lock(mutex_);
    opened_.wait(lock, [this] { return count_ <= 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  int count_;
};

// Runs each test through the methods and through the flat functions. Owns the endpoints that a test
// makes and takes them out of the bridge at its end, with their subscribers and servers.
class Bridge : public testing::TestWithParam<Api> {
 protected:
  Endpoint& Topic(const std::string& name, BridgeType type) {
    return Make({name, BridgeModule::Topic, type});
  }
  Endpoint& Service(const std::string& name, BridgeType type) {
    return Make({name, BridgeModule::Service, type});
  }
  Endpoint& Make(const bridge::Control& control) {
    return endpoints_.emplace_back(std::make_shared<bridge::Control>(control));
  }

  void SetUp() override { TakeLog(); }
  void TearDown() override {
    for (auto& endpoint : endpoints_) {
      Endpoint server = endpoint;
      TheBridge().UnregisterServer(server, 0);
      TheBridge().UnregisterSubscriber(endpoint, 0);
    }
  }

  const Api& api = GetParam();

 private:
  std::deque<Endpoint> endpoints_;
};

#endif  // ZORVIX_TESTS_BRIDGE_TEST_H_
