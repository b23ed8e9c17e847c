#include "import.h"

#include <chrono>
#include <exception>
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

}  // namespace

bool IsImportedMessage(const void* message) { return message == imported_message; }

bool IsImportedState(const std::string& name) {
  auto& states = ImportedStates::Instance();
  const std::lock_guard lock(states.mutex);
  return states.names.count(name) != 0;
}

namespace detail {

void Inlet::Receive(const std::string& text) {
  std::shared_ptr<const Receiver::Handler> handler;
  {
    const std::lock_guard lock(mutex_);
    handler = handler_;
    inside_ = std::this_thread::get_id();
  }
  try {
    if (handler) (*handler)(text);
  } catch (const std::exception&) {
    rejected.Add("it cannot be decoded");
  }
  handler.reset();  // after Close the last one, which is destroyed under no lock
  const std::lock_guard lock(mutex_);
  inside_ = {};
  left_.notify_all();
}

void Inlet::Close() {
  std::shared_ptr<const Receiver::Handler> handler;  // destroyed after the lock
  std::unique_lock lock(mutex_);
  handler.swap(handler_);
  if (inside_ == std::this_thread::get_id()) return;  // it is destroyed by Receive
  const auto has_left = [this] { return inside_ == std::thread::id(); };
  if (left_.wait_for(lock, std::chrono::seconds(1), has_left)) return;
  BRIDGE_LOG(bridge::kLogWarn, "a destructor waits for its callable to return, name: %s",
             name.c_str());
  left_.wait(lock, has_left);
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
    Marked& operator=(const Marked&) = delete;
    const void* const outer;
  };
  const Marked marked(message);
  bridge::Zorvix::GetInstance().Publish(control_, std::move(any));
}

Receiver::Receiver(Connection& connection, const std::string& name, const std::string& mqtt_topic,
                   Kind kind, zorvix::detail::Module& module)
    : core_(connection.core_),
      inlet_(
          std::make_shared<Inlet>(name, CheckedTopic(core_->topic_prefix, name, mqtt_topic), kind)),
      listing_(std::make_shared<zorvix::detail::Listing>("Import", name, module, [inlet = inlet_] {
        return zorvix::detail::Counts{0, 0, inlet->rejected.count()};
      })) {
  if (kind == Kind::kTopic) return;
  auto& states = ImportedStates::Instance();
  const std::lock_guard lock(states.mutex);
  states.names.insert(name);
}

Receiver::~Receiver() {
  inlet_->Close();
  core_->Post([inlet = inlet_](Worker& worker) { worker.RemoveImport(inlet); });
  if (inlet_->kind == Kind::kTopic) return;
  auto& states = ImportedStates::Instance();
  const std::lock_guard lock(states.mutex);
  states.names.erase(states.names.find(inlet_->name));
}

void Receiver::Start(Handler handler) {
  inlet_->SetHandler(std::move(handler));
  core_->Post([inlet = inlet_](Worker& worker) { worker.AddImport(inlet); });
}

}  // namespace detail

}  // namespace zorvix::mqtt
