#include "import.h"

#include <chrono>
#include <set>

#include "connection.h"

namespace zorvix::mqtt {

namespace {

// The message that an import publishes on this thread.
thread_local const void* imported_message = nullptr;

// The names of the states that this process imports.
struct ImportedStates {
  static ImportedStates& Instance() {
    static auto* const instance = new ImportedStates;  // outlives static handles
    return *instance;
  }
  std::mutex mutex;
  std::multiset<std::string> names ZORVIX_GUARDED_BY(mutex);
};

void AddImportedState(const std::string& name) {
  auto& states = ImportedStates::Instance();
  const std::lock_guard lock(states.mutex);
  states.names.insert(name);
}

void RemoveImportedState(const std::string& name) {
  auto& states = ImportedStates::Instance();
  const std::lock_guard lock(states.mutex);
  states.names.erase(states.names.find(name));
}

}  // namespace

bool IsImportedMessage(const void* message) { return message == imported_message; }

bool IsImportedState(const std::string& name) {
  auto& states = ImportedStates::Instance();
  const std::lock_guard lock(states.mutex);
  return states.names.count(name) != 0;
}

namespace detail {

bool Inlet::Invoke(const std::string& text) {
  {
    const std::lock_guard lock(mutex_);
    if (is_closed_) return true;
    inside_ = std::this_thread::get_id();
  }
  bool is_decoded = true;
  try {
    handler_(text);
  } catch (const std::exception&) {
    is_decoded = false;
  }
  Receiver::Handler closed_handler;  // destroyed under no lock, but before Close returns
  {
    const std::lock_guard lock(mutex_);
    if (is_closed_) closed_handler.swap(handler_);
  }
  closed_handler = nullptr;
  const std::lock_guard lock(mutex_);
  inside_ = {};
  left_.notify_all();
  return is_decoded;
}

void Inlet::Close() {
  {
    std::unique_lock lock(mutex_);
    is_closed_ = true;
    if (inside_ == std::this_thread::get_id()) return;  // Invoke destroys the handler
    const auto has_left = [this] { return inside_ == std::thread::id(); };
    if (!left_.wait_for(lock, std::chrono::seconds(1), has_left)) {
      BRIDGE_LOG(bridge::kLogWarn, "a destructor waits for its callable to return, name: %s",
                 name.c_str());
      left_.wait(lock, has_left);
    }
  }
  handler_ = nullptr;
}

ImportedTopic::ImportedTopic(const std::string& name)
    : control_(std::make_shared<bridge::Control>(
          bridge::Control{name, bridge::BridgeModule::Topic, bridge::BridgeType::Sync})) {
  bridge::Zorvix::GetInstance().RegisterPublisher(control_);
}

ImportedTopic::~ImportedTopic() { bridge::Zorvix::GetInstance().UnregisterPublisher(control_); }

void ImportedTopic::Publish(std::any&& any, const void* message) const {
  struct Marked {
    explicit Marked(const void* marked) : outer(std::exchange(imported_message, marked)) {}
    ~Marked() { imported_message = outer; }
    Marked(const Marked&) = delete;
    const void* const outer;
  };
  const Marked marked(message);
  bridge::Zorvix::GetInstance().Publish(control_, std::move(any));
}

Receiver::Receiver(Connection& connection, const std::string& name, const std::string& mqtt_topic,
                   Kind kind)
    : core_(connection.core_),
      inlet_(std::make_shared<Inlet>(name, core_->CheckedTopic(name, mqtt_topic), kind)) {
  if (kind == Kind::kState) AddImportedState(name);
}

Receiver::~Receiver() {
  inlet_->Close();
  if (inlet_->kind == Kind::kState) RemoveImportedState(inlet_->name);
  core_->Post([inlet = inlet_](Worker& worker) { worker.RemoveImport(inlet); });
}

void Receiver::Start(Handler handler) {
  inlet_->SetHandler(std::move(handler));
  core_->Post([inlet = inlet_](Worker& worker) { worker.AddImport(inlet); });
}

std::function<zorvix::detail::Counts()> Receiver::counts() const {
  return [rejected = inlet_->rejected] { return zorvix::detail::Counts{0, 0, rejected->count()}; };
}

}  // namespace detail

}  // namespace zorvix::mqtt
