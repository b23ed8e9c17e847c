// What the tests of the bridge share: short ways to make endpoints, callbacks
// and workers, and a latch.
#ifndef ZORVIX_TESTS_BRIDGE_TEST_H_
#define ZORVIX_TESTS_BRIDGE_TEST_H_

#include <gtest/gtest.h>
#include <zorvix/zorvix_flat.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "log_capture.h"

using bridge::BridgeModule;
using bridge::BridgeType;
using bridge::Zorvix;
using Endpoint = std::shared_ptr<const bridge::Control>;
using ServerFunction = std::function<void(const std::any&, std::any&)>;

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
  explicit Latch(unsigned count = 1) : count_(count) {}
  void CountDown() {
    const std::lock_guard lock(mutex_);
    if (count_ > 0 && --count_ == 0) opened_.notify_all();
  }
  void Wait() {
    std::unique_lock lock(mutex_);
    opened_.wait(lock, [this] { return count_ == 0; });
  }
  void Meet() {
    CountDown();
    Wait();
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  unsigned count_;
};

// Runs workers until the end of its scope, however early that is.
class Spinning {
 public:
  template <typename Spin>
  explicit Spinning(Spin spin)
      : thread_([=] {
          spin();
          left_ = true;
        }) {}
  ~Spinning() { Stop(); }
  void Stop() {
    while (!left_) ZorvixStopSpin();
    if (thread_.joinable()) thread_.join();
  }
  std::thread::id Id() const { return thread_.get_id(); }

 private:
  std::atomic<bool> left_{false};
  std::thread thread_;
};

// Owns the endpoints that a test makes and takes them out of the bridge at its end, with their
// subscribers and servers. The flat functions call the methods, so tests use them for both.
class Bridge : public testing::Test {
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
      ZorvixUnregisterServer(server);
      ZorvixUnregisterSubscriber(endpoint, 0);
    }
  }

 private:
  std::deque<Endpoint> endpoints_;
};

#endif  // ZORVIX_TESTS_BRIDGE_TEST_H_
