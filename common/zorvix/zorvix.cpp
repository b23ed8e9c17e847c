// The bridge compares no types, but is compiled in the mode that its users need.
#ifndef _LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION
#define _LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION 2
#endif

#include "zorvix.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iterator>
#include <thread>
#include <typeinfo>
#include <utility>

#include "zorvix_flat.h"

namespace bridge {
namespace {

constexpr std::int32_t kEventQueueBaseLimit = 100;
constexpr std::chrono::duration<double> kStopSpinTimeout{0.2};
constexpr std::chrono::nanoseconds kStopSpinPollInterval{1'000'000};

// The real name of a delivery. It is needed only if a callback fails, so a Sync delivery must not
// allocate for it: a name of less than 128 characters is stored in place.
class RealName {
 public:
  void Compose(const Control& control) {
    const std::string_view suffix = RealNameSuffix(control);
    if (control.name.size() + suffix.size() >= sizeof short_) {
      long_.append(control.name).append(suffix);
      return;
    }
    char* const end = std::copy(control.name.begin(), control.name.end(), short_);
    *std::copy(suffix.begin(), suffix.end(), end) = '\0';
  }
  const char* c_str() const { return long_.empty() ? short_ : long_.c_str(); }

 private:
  char short_[128];
  std::string long_;
};

// Runs user code. Other exceptions than std::exception pass through, so callers hold no lock and
// leave nothing to be undone. Inline because of the loop over subscribers: compilers hesitate to
// inline exception handlers, although these cost nothing unless something is thrown.
template <typename Function, typename Argument>
inline void GuardedInvoke(const Function& function, const Argument& argument, const char* real_name,
                          const void* callback_handle) {
  try {
    function(argument);
  } catch (const std::bad_cast& error) {
    BRIDGE_LOG(kLogError,
               "error: %s, _LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION: %d, real_name: %s, "
               "callback_handle: %p. make sure that the compiler macro "
               "_LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION=2",
               error.what(), 2, real_name, callback_handle);
  } catch (const std::exception& error) {
    BRIDGE_LOG(kLogError, "callback failed! error: %s, real_name: %s, callback_handle: %p",
               error.what(), real_name, callback_handle);
  }
}

unsigned long Handle(const SubscriberCallback& callback) {
  return reinterpret_cast<unsigned long>(callback.get());
}

// Returns `callbacks` without those at the address `callback_handle`, or null if none is left.
std::shared_ptr<const std::vector<SubscriberCallback>> Without(
    const std::vector<SubscriberCallback>& callbacks, unsigned long callback_handle) {
  auto rest = std::make_shared<std::vector<SubscriberCallback>>();
  rest->reserve(callbacks.size());
  std::copy_if(callbacks.begin(), callbacks.end(), std::back_inserter(*rest),
               [=](const auto& callback) { return Handle(callback) != callback_handle; });
  if (rest->empty()) return nullptr;
  return rest;
}

// Wakes all waiting threads when it is destroyed.
struct NotifyAtExit {
  ~NotifyAtExit() { condition.notify_all(); }
  std::condition_variable& condition;
};

}  // namespace

Zorvix& Zorvix::GetInstance() {
  static Zorvix instance;
  return instance;
}

// Names

void Zorvix::RegisterControl(std::shared_ptr<const Control>& control,
                             const std::string& real_name) {
  const auto [entry, inserted] = controls_.try_emplace(real_name, control);
  if (inserted) return;
  if (auto registered = entry->second.lock()) {
    control = std::move(registered);
  } else {
    entry->second = control;
    BRIDGE_LOG(kLogWarn, "register control is expired!");
  }
}

void Zorvix::RegisterName(std::shared_ptr<const Control>& control, const char* operation) {
  if (!control) {
    BRIDGE_LOG(kLogError, "%s failed, control is nullptr!", operation);
    return;
  }
  const std::lock_guard lock(controls_mutex_);
  RegisterControl(control, GetRealName(control));
}

void Zorvix::UnregisterName(std::shared_ptr<const Control>& control, const char* operation,
                            const char* name_label) {
  if (!control) {
    BRIDGE_LOG(kLogWarn, "%s failed, control is nullptr!", operation);
    return;
  }
  const std::lock_guard lock(controls_mutex_);
  const std::string real_name = GetRealName(control);
  control.reset();  // may be the last owner, so the entry may expire here
  const auto entry = controls_.find(real_name);
  if (entry == controls_.end()) {
    BRIDGE_LOG(kLogError, "%s failed, %s: %s", operation, name_label, real_name.c_str());
  } else if (entry->second.expired()) {
    controls_.erase(entry);
    BRIDGE_LOG(kLogInfo, "control has been unregistered, %s: %s", name_label, real_name.c_str());
  }
}

void Zorvix::RegisterPublisher(std::shared_ptr<const Control>& control) {
  RegisterName(control, "RegisterPublisher");
}

void Zorvix::UnregisterPublisher(std::shared_ptr<const Control>& control) {
  UnregisterName(control, "UnregisterPublisher", "real_topic_name");
}

void Zorvix::RegisterClient(std::shared_ptr<const Control>& control) {
  RegisterName(control, "RegisterClient");
}

void Zorvix::UnregisterClient(std::shared_ptr<const Control>& control) {
  UnregisterName(control, "UnregisterClient", "real_name");
}

// Topics

void Zorvix::RegisterSubscriber(std::shared_ptr<const Control>& control,
                                const SubscriberCallback& callback) {
  if (!control) {
    BRIDGE_LOG(kLogError, "RegisterSubscriber failed, control is nullptr!");
    return;
  }
  if (!callback) {
    BRIDGE_LOG(kLogError, "RegisterSubscriber failed, callback is nullptr!");
    return;
  }
  {
    const std::lock_guard lock(controls_mutex_);
    RegisterControl(control, GetRealName(control));
  }
  const std::lock_guard lock(subscribers_mutex_);
  auto callbacks = std::make_shared<std::vector<SubscriberCallback>>();
  const auto topic = subscribers_.find(control.get());
  if (topic != subscribers_.end()) {
    callbacks->reserve(topic->second->size() + 1);
    *callbacks = *topic->second;
  }
  callbacks->push_back(callback);
  subscribers_.insert_or_assign(control.get(), std::move(callbacks));
}

void Zorvix::UnregisterSubscriber(std::shared_ptr<const Control>& control,
                                  unsigned long callback_handle) {
  if (!control) {
    BRIDGE_LOG(kLogError, "UnregisterSubscriber failed, control is nullptr!");
    return;
  }
  const std::lock_guard controls_lock(controls_mutex_);
  const std::string real_name = GetRealName(control);
  const Control* const key = control.get();
  control.reset();
  const auto entry = controls_.find(real_name);
  if (entry == controls_.end()) {
    BRIDGE_LOG(kLogError, "UnregisterSubscriber failed, real_topic_name: %s", real_name.c_str());
    return;
  }
  const std::lock_guard subscribers_lock(subscribers_mutex_);
  if (entry->second.expired()) {
    controls_.erase(entry);
    subscribers_.erase(key);
    BRIDGE_LOG(kLogInfo, "control has been unregistered, real_topic_name: %s", real_name.c_str());
    return;
  }
  const auto topic = subscribers_.find(key);
  if (topic == subscribers_.end()) {
    BRIDGE_LOG(kLogInfo, "callback not find, maybe has been unregistered, real_topic_name: %s",
               real_name.c_str());
    return;
  }
  topic->second = Without(*topic->second, callback_handle);
  if (!topic->second) {
    subscribers_.erase(topic);
    BRIDGE_LOG(kLogInfo, "callback_list has been clear, real_topic_name: %s", real_name.c_str());
  }
}

bool Zorvix::Publish(const std::shared_ptr<const Control>& control, Message&& message) {
  if (!control) {
    BRIDGE_LOG(kLogError, "Publish failed, control is nullptr!");
    return false;
  }
  if (!message.has_value()) {
    BRIDGE_LOG(kLogError, "Publish failed, message is empty!");
    return false;
  }
  RealName name;
  std::shared_ptr<const std::vector<SubscriberCallback>> callbacks;
  {
    const std::lock_guard controls_lock(controls_mutex_);
    const std::lock_guard subscribers_lock(subscribers_mutex_);
    name.Compose(*control);
    const auto topic = subscribers_.find(control.get());
    if (topic == subscribers_.end()) {
      BRIDGE_LOG(kLogWarn, "Publish failed, no subscriber, name: %s", control->name.c_str());
      return false;
    }
    callbacks = topic->second;
    if (control->bridge_type == BridgeType::SignleAsync) {
      AutoRemoveSubscribers(*control, callbacks->size());
    }
  }  // user code runs, and the queue is locked, without these locks
  const char* const real_name = name.c_str();
  switch (control->bridge_type) {
    case BridgeType::Sync:
      for (const auto& callback : *callbacks) {
        GuardedInvoke(*callback, message, real_name, callback.get());
      }
      return true;
    case BridgeType::Async:
    case BridgeType::SignleAsync:
      PostPublication(*callbacks, real_name, std::move(message));
      return true;
  }
  BRIDGE_LOG(kLogError, "Call failed, bridge_type is invalid!");
  return false;
}

void Zorvix::PostPublication(const std::vector<SubscriberCallback>& callbacks, std::string name,
                             Message&& message) {
  const NotifyAtExit notify{events_cv_};  // also if a task after the first cannot be allocated
  for (const auto& callback : callbacks) {
    // The first task takes the name and the message. std::exchange leaves empty ones for the other
    // tasks; an object that was moved from need not be empty.
    PostEvent([name = std::exchange(name, {}), callback = callback,
               message = std::exchange(message, {})] {
      GuardedInvoke(*callback, message, name.c_str(), callback.get());
    });
  }
}

void Zorvix::AutoRemoveSubscribers(const Control& control, std::size_t count) {
  switch (control.bridge_module) {
    case BridgeModule::Topic:
      subscribers_.erase(&control);
      return;
    case BridgeModule::Service: {
      const std::lock_guard lock(servers_mutex_);
      servers_.erase(&control);
      return;
    }
  }
  for (std::size_t i = 0; i < count; ++i) BRIDGE_LOG(kLogError, "bridge_module is invalid!");
}

#ifdef __clang__
__attribute__((no_thread_safety_analysis))  // uses the tables without their locks, by contract
#endif
void Zorvix::SignleAsyncAutoRemove(const std::shared_ptr<const Control>& control,
                                   const SubscriberCallback& callback) {
  if (!control) {
    BRIDGE_LOG(kLogError, "control is nullptr!");
    return;
  }
  if (control->bridge_type != BridgeType::SignleAsync) return;
  if (control->bridge_module == BridgeModule::Service) {
    servers_.erase(control.get());
    return;
  }
  if (control->bridge_module != BridgeModule::Topic || !callback) {
    BRIDGE_LOG(kLogError, "bridge_module is invalid!");
    return;
  }
  const auto topic = subscribers_.find(control.get());
  if (topic == subscribers_.end()) return;
  topic->second = Without(*topic->second, Handle(callback));
  if (!topic->second) subscribers_.erase(topic);
}

// Services

void Zorvix::RegisterServer(std::shared_ptr<const Control>& control,
                            const ServerCallback& callback) {
  if (!control) {
    BRIDGE_LOG(kLogError, "RegisterServer failed, control is nullptr!");
    return;
  }
  if (!callback) {
    BRIDGE_LOG(kLogError, "RegisterServer failed, callback is nullptr!");
    return;
  }
  std::string real_name;
  {
    const std::lock_guard lock(controls_mutex_);
    real_name = GetRealName(control);
    RegisterControl(control, real_name);
  }
  const std::lock_guard lock(servers_mutex_);
  const auto [server, inserted] = servers_.try_emplace(control.get(), callback);
  if (!inserted) {
    BRIDGE_LOG(kLogWarn, "callback is motified, real_name: %s", real_name.c_str());
    server->second = callback;
  }
}

void Zorvix::UnregisterServer(std::shared_ptr<const Control>& control, unsigned long) {
  if (!control) {
    BRIDGE_LOG(kLogError, "UnregisterServer failed, control is nullptr!");
    return;
  }
  const std::lock_guard controls_lock(controls_mutex_);
  const std::string real_name = GetRealName(control);
  const Control* const key = control.get();
  control.reset();
  const auto entry = controls_.find(real_name);
  if (entry == controls_.end()) {
    BRIDGE_LOG(kLogError, "UnregisterSubscriber failed, real_name: %s", real_name.c_str());
    return;
  }
  const std::lock_guard servers_lock(servers_mutex_);
  if (entry->second.expired()) {
    controls_.erase(entry);
    servers_.erase(key);
    BRIDGE_LOG(kLogInfo, "control has been unregistered, real_name: %s", real_name.c_str());
  } else if (servers_.erase(key) != 0) {
    BRIDGE_LOG(kLogInfo, "callback has been unregistered, real_name: %s", real_name.c_str());
  } else {
    BRIDGE_LOG(kLogInfo, "callback not find, maybe has been unregistered, real_name: %s",
               real_name.c_str());
  }
}

bool Zorvix::Call(const std::shared_ptr<const Control>& control, RequestCallback&& request) {
  if (!control) {
    BRIDGE_LOG(kLogError, "Call failed, control is nullptr!");
    return false;
  }
  RealName name;
  ServerCallback server;
  {
    const std::lock_guard controls_lock(controls_mutex_);
    const std::lock_guard servers_lock(servers_mutex_);
    name.Compose(*control);
    const auto entry = servers_.find(control.get());
    if (entry == servers_.end()) {
      BRIDGE_LOG(kLogWarn, "Call failed, no server, server_name: %s", name.c_str());
      return false;
    }
    server = entry->second;
    if (control->bridge_type == BridgeType::SignleAsync) {
      if (control->bridge_module == BridgeModule::Service) {
        servers_.erase(entry);
      } else {
        BRIDGE_LOG(kLogError, "bridge_module is invalid!");
      }
    }
  }
  switch (control->bridge_type) {
    case BridgeType::Sync:
      GuardedInvoke(request, *server, name.c_str(), server.get());
      return true;
    case BridgeType::Async:
    case BridgeType::SignleAsync:
      PostEvent([request = std::move(request), name = std::string(name.c_str()), server] {
        GuardedInvoke(request, *server, name.c_str(), server.get());
      });
      events_cv_.notify_all();
      return true;
  }
  BRIDGE_LOG(kLogError, "Call failed, bridge_type is invalid!");
  return false;
}

// Queue

void Zorvix::PostEvent(Task&& task) {
  const std::lock_guard lock(events_mutex_);
  const std::int32_t limit = std::max(kEventQueueBaseLimit, kEventQueueBaseLimit * spin_count_);
  if (events_.size() >= static_cast<std::size_t>(limit)) {
    BRIDGE_LOG(kLogWarn, "event queue overflow, size: %zu", events_.size());
    events_.pop_front();
  }
  events_.push_back(std::move(task));
  events_count_.store(events_.size(), std::memory_order_relaxed);
}

bool Zorvix::RunOneceStep() {
  if (events_count_.load(std::memory_order_relaxed) == 0) return false;
  Task task;
  {
    const std::lock_guard lock(events_mutex_);
    if (events_.empty()) return false;
    task.swap(events_.front());
    events_.pop_front();
    events_count_.store(events_.size(), std::memory_order_relaxed);
    BRIDGE_LOG(kLogInfo, "event queue size: %zu", events_.size());
  }
  task();
  return true;
}

void Zorvix::SpinOnce() {
  while (RunOneceStep()) {
  }
}

void Zorvix::Spin(unsigned long workers) {
  {
    const std::lock_guard lock(spin_mutex_);
    spin_stop_ = false;
  }
  std::vector<std::thread> threads;
  threads.reserve(workers);
  for (unsigned long i = 0; i < workers; ++i) threads.emplace_back(&Zorvix::SpinWorker, this);
  for (auto& thread : threads) thread.join();
  BRIDGE_LOG(kLogInfo, "Spin exit.");
}

void Zorvix::SpinWorker() {
  ++spin_count_;
  if (!spin_stop_) {
    do {
      BRIDGE_LOG(kLogInfo, "Spin loop once lock.");
      {
        std::unique_lock lock(events_mutex_);
        events_cv_.wait(lock, [this] { return events_count_ != 0 || spin_stop_; });
        BRIDGE_LOG(kLogInfo, "Spin loop once.");
      }
      SpinOnce();
    } while (!spin_stop_);
    // Tasks that were posted between the last look at the queue and the stop.
    SpinOnce();
  }
  --spin_count_;
}

// With the queue locked, so that a worker cannot miss the stop between its test and its wait.
void Zorvix::RequestStop() {
  spin_stop_ = true;
  events_cv_.notify_all();
}

void Zorvix::StopSpin() {
  const std::lock_guard spin_lock(spin_mutex_);
  {
    const std::lock_guard lock(events_mutex_);
    RequestStop();
  }
  const auto start = std::chrono::system_clock::now();
  while (spin_count_ != 0) {
    const std::chrono::duration<double> elapsed = std::chrono::system_clock::now() - start;
    BRIDGE_LOG(kLogInfo, "elapsed: %.3lfms", elapsed.count() * 1000);
    if (elapsed > kStopSpinTimeout) {
      BRIDGE_LOG(kLogWarn, "StopSpin timeout.");
      return;
    }
    std::this_thread::sleep_for(kStopSpinPollInterval);
  }
}

}  // namespace bridge

// Flat functions

using bridge::Zorvix;

void ZorvixRegisterPublisher(std::shared_ptr<const bridge::Control>& control) {
  Zorvix::GetInstance().RegisterPublisher(control);
}

void ZorvixUnregisterPublisher(std::shared_ptr<const bridge::Control>& control) {
  Zorvix::GetInstance().UnregisterPublisher(control);
}

void ZorvixRegisterSubscriber(std::shared_ptr<const bridge::Control>& control,
                              const bridge::SubscriberCallback& callback) {
  Zorvix::GetInstance().RegisterSubscriber(control, callback);
}

void ZorvixUnregisterSubscriber(std::shared_ptr<const bridge::Control>& control,
                                unsigned long callback_handle) {
  Zorvix::GetInstance().UnregisterSubscriber(control, callback_handle);
}

bool ZorvixPublish(const std::shared_ptr<const bridge::Control>& control,
                   bridge::Message&& message) {
  return Zorvix::GetInstance().Publish(control, std::move(message));
}

void ZorvixRegisterClient(std::shared_ptr<const bridge::Control>& control) {
  Zorvix::GetInstance().RegisterClient(control);
}

void ZorvixUnregisterClient(std::shared_ptr<const bridge::Control>& control) {
  Zorvix::GetInstance().UnregisterClient(control);
}

void ZorvixRegisterServer(std::shared_ptr<const bridge::Control>& control,
                          const bridge::ServerCallback& callback) {
  Zorvix::GetInstance().RegisterServer(control, callback);
}

void ZorvixUnregisterServer(std::shared_ptr<const bridge::Control>& control) {
  Zorvix::GetInstance().UnregisterServer(control, 0);
}

bool ZorvixCall(const std::shared_ptr<const bridge::Control>& control,
                bridge::RequestCallback&& request) {
  return Zorvix::GetInstance().Call(control, std::move(request));
}

bool ZorvixRunOneceStep() { return Zorvix::GetInstance().RunOneceStep(); }

void ZorvixSpinOnce() {
  Zorvix& bridge = Zorvix::GetInstance();
  while (bridge.RunOneceStep()) {
  }
}

void ZorvixSpin(unsigned long workers) { Zorvix::GetInstance().Spin(workers); }

bool ZorvixIsSpin() { return Zorvix::GetInstance().spin_count_ != 0; }

void ZorvixStopSpin() { Zorvix::GetInstance().StopSpin(); }
