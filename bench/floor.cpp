#include "floor.h"

#include <cstdio>
#include <exception>
#include <mutex>
#include <string_view>
#include <utility>

namespace {

using bridge::Control;

constexpr std::string_view kSyncTopic = "/Topic/Sync";
constexpr std::string_view kAsyncTopic = "/Topic/Async";
constexpr std::string_view kSyncService = "/Service/Sync";

std::string Name(const Control& control, std::string_view suffix) {
  std::string name;
  name.reserve(control.name.size() + suffix.size());
  name += control.name;
  name += suffix;
  return name;
}

void Log(int priority, const char* message) {
  __android_log_print(priority, "[BRIDGE]", "%s:%d: %s", __FILE__, __LINE__, message);
}

template <typename Function, typename Argument>
inline void Guarded(const Function& function, const Argument& argument, const std::string& name) {
  try {
    function(argument);
  } catch (const std::exception& error) {
    Log(bridge::kLogError, (name + error.what()).c_str());
  }
}

}  // namespace

void Floor::Subscribe(std::shared_ptr<const Control>& control,
                      const bridge::SubscriberCallback& callback) {
  {
    const std::lock_guard lock(controls_mutex_);
    const auto [entry, inserted] = controls_.try_emplace(Name(*control, kSyncTopic), control);
    if (!inserted) control = entry->second.lock();
  }
  const std::lock_guard lock(subscribers_mutex_);
  auto& list = subscribers_[control.get()];
  auto callbacks = std::make_shared<Callbacks>();
  callbacks->reserve((list ? list->size() : 0) + 1);
  if (list) callbacks->assign(list->begin(), list->end());
  callbacks->push_back(callback);
  list = std::move(callbacks);
}

void Floor::Unsubscribe(std::shared_ptr<const Control>& control, const void* callback) {
  const std::lock_guard controls_lock(controls_mutex_);
  const auto entry = controls_.find(Name(*control, kSyncTopic));
  const Control* const key = control.get();
  control.reset();
  const std::lock_guard subscribers_lock(subscribers_mutex_);
  const auto topic = subscribers_.find(key);
  if (entry->second.expired()) {
    controls_.erase(entry);
    subscribers_.erase(topic);
    return;
  }
  auto rest = std::make_shared<Callbacks>();
  rest->reserve(topic->second->size());
  for (const auto& other : *topic->second) {
    if (other.get() != callback) rest->push_back(other);
  }
  topic->second = std::move(rest);
}

void Floor::Publish(const std::shared_ptr<const Control>& control, const bridge::Message& message) {
  std::unique_lock controls_lock(controls_mutex_);
  std::unique_lock subscribers_lock(subscribers_mutex_);
  const std::string name = Name(*control, kSyncTopic);
  const auto callbacks = subscribers_.find(control.get())->second;
  subscribers_lock.unlock();
  controls_lock.unlock();
  for (const auto& callback : *callbacks) Guarded(*callback, message, name);
}

void Floor::Post(const std::shared_ptr<const Control>& control, bridge::Message&& message) {
  std::unique_lock controls_lock(controls_mutex_);
  std::unique_lock subscribers_lock(subscribers_mutex_);
  std::string name = Name(*control, kAsyncTopic);
  const auto callbacks = subscribers_.find(control.get())->second;
  subscribers_lock.unlock();
  controls_lock.unlock();
  for (const auto& callback : *callbacks) {
    bridge::Task task = [name = std::exchange(name, {}), callback = callback,
                         message = std::exchange(message, {})] {
      Guarded(*callback, message, name);
    };
    const std::lock_guard lock(events_mutex_);
    events_.push_back(std::move(task));
  }
  events_cv_.notify_all();
}

bool Floor::Step() {
  bridge::Task task;
  {
    const std::lock_guard lock(events_mutex_);
    if (events_.empty()) return false;
    task = std::move(events_.front());
    events_.pop_front();
    char message[bridge::kLogBufferSize] = {};
    std::snprintf(message, sizeof message, "event queue size: %zu", events_.size());
    Log(bridge::kLogInfo, message);
  }
  task();
  return true;
}

void Floor::Start() { stop_ = false; }

void Floor::Work() {
  for (;;) {
    {
      std::unique_lock lock(events_mutex_);
      events_cv_.wait(lock, [this] { return !events_.empty() || stop_; });
      if (events_.empty()) return;
    }
    while (Step()) {
    }
  }
}

void Floor::Stop() {
  const std::lock_guard lock(events_mutex_);
  stop_ = true;
  events_cv_.notify_all();
}

void Floor::Serve(const std::shared_ptr<const Control>& control,
                  const bridge::ServerCallback& server) {
  const std::lock_guard lock(servers_mutex_);
  servers_[control.get()] = server;
}

void Floor::Call(const std::shared_ptr<const Control>& control,
                 const bridge::RequestCallback& request) {
  std::unique_lock controls_lock(controls_mutex_);
  std::unique_lock servers_lock(servers_mutex_);
  const std::string name = Name(*control, kSyncService);
  const auto server = servers_.find(control.get())->second;
  servers_lock.unlock();
  controls_lock.unlock();
  Guarded(request, *server, name);
}
