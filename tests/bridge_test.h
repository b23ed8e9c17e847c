// Shared by the tests of the bridge and of the handles: short ways to make endpoints and callbacks.
// Tests synchronise threads by log lines: see WaitForLog and HoldLog.
#ifndef ZORVIX_TESTS_BRIDGE_TEST_H_
#define ZORVIX_TESTS_BRIDGE_TEST_H_

#include <gtest/gtest.h>
#include <zorvix/typed.h>
#include <zorvix/zorvix_flat.h>

#include <iostream>

#include "log_capture.h"

using bridge::BridgeModule;
using bridge::BridgeType;
using bridge::Zorvix;
using Endpoint = std::shared_ptr<const bridge::Control>;
using SubscriberFunction = std::function<void(const std::any&)>;
using ServerFunction = std::function<void(const std::any&, std::any&)>;

// Returns the seed of a random walk: 0, or the value of ZORVIX_SEED. Prints it before the walk
// starts, since the report of a crash or a leak does not contain it.
inline unsigned Seed() {
  const char* const given = std::getenv("ZORVIX_SEED");
  const auto seed = given ? static_cast<unsigned>(std::stoul(given)) : 0;
  std::cout << "ZORVIX_SEED=" << seed << std::endl;
  return seed;
}

inline void Log(const std::string& text) { BRIDGE_LOG(bridge::kLogInfo, "%s", text.c_str()); }

inline bridge::SubscriberCallback Subscriber(SubscriberFunction function) {
  return std::make_shared<SubscriberFunction>(std::move(function));
}

inline bridge::ServerCallback Server(ServerFunction function) {
  return std::make_shared<ServerFunction>(std::move(function));
}

// Returns the number by which UnregisterSubscriber finds `callback`.
inline unsigned long Handle(const bridge::SubscriberCallback& callback) {
  return reinterpret_cast<unsigned long>(callback.get());
}

// A RequestCallback that calls the server and ignores its response.
inline void Request(const ServerFunction& serve) {
  std::any response;
  serve(1, response);
}

inline Endpoint MakeControl(const std::string& name, BridgeModule module, BridgeType type) {
  return std::make_shared<bridge::Control>(bridge::Control{name, module, type});
}

// Owns the endpoints of a test. Unregisters them at the end of the test, which removes their
// subscribers and servers.
class Bridge : public testing::Test {
 protected:
  // Returns a service, with a server if `server` is given.
  Endpoint& Service(const std::string& name, BridgeType type,
                    const bridge::ServerCallback& server = nullptr) {
    auto& service = endpoints_.emplace_back(MakeControl(name, BridgeModule::Service, type));
    if (server) ZorvixRegisterServer(service, server);
    return service;
  }
  // Returns a topic with these subscribers.
  Endpoint& Subscribed(const std::string& name, BridgeType type,
                       const std::vector<bridge::SubscriberCallback>& callbacks) {
    auto& topic = endpoints_.emplace_back(MakeControl(name, BridgeModule::Topic, type));
    for (const auto& callback : callbacks) ZorvixRegisterSubscriber(topic, callback);
    return topic;
  }

  void SetUp() override { TakeLog(); }
  void TearDown() override {
    for (auto& endpoint : endpoints_) {
      if (endpoint->bridge_module == BridgeModule::Topic) {
        ZorvixUnregisterSubscriber(endpoint, 0);
      } else {
        ZorvixUnregisterServer(endpoint);
      }
    }
  }

 private:
  std::deque<Endpoint> endpoints_;
};

#endif  // ZORVIX_TESTS_BRIDGE_TEST_H_
