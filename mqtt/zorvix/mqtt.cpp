#include "zorvix/mqtt.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <set>
#include <stdexcept>

#include "../worker.h"

namespace zorvix {
namespace mqtt {

namespace {

// The message that an import publishes on this thread.
thread_local const void* imported = nullptr;

// Marks a message as published by an import, on this thread and until it is destroyed.
class Importing {
 public:
  explicit Importing(const void* message) : outer_(std::exchange(imported, message)) {}
  ~Importing() { imported = outer_; }
  Importing(const Importing&) = delete;

 private:
  const void* const outer_;
};

// The names of states that this process imports.
class ImportedStates {
 public:
  static ImportedStates& Instance() {
    static auto* const instance = new ImportedStates;  // outlives static handles
    return *instance;
  }
  void Add(const std::string& name) {
    const std::lock_guard lock(mutex_);
    names_.insert(name);
  }
  void Remove(const std::string& name) {
    const std::lock_guard lock(mutex_);
    names_.erase(names_.find(name));
  }
  bool Contains(const std::string& name) {
    const std::lock_guard lock(mutex_);
    return names_.count(name) != 0;
  }

 private:
  std::mutex mutex_;
  std::multiset<std::string> names_ ZORVIX_GUARDED_BY(mutex_);
};

void Require(bool fulfilled, const std::string& what) {
  if (!fulfilled) throw std::invalid_argument("MQTT: " + what);
}

void CheckOptions(const Options& options) {
  const bool with_password = !options.username.empty() || !options.password.empty();
  Require(!options.host.empty(), "there is no host");
  Require(options.port >= 0 && options.port <= 0xFFFF, "the port is out of range");
  Require(options.keep_alive >= std::chrono::seconds(5) &&
              options.keep_alive <= std::chrono::seconds(0xFFFF),
          "keep_alive is out of range");
  Require(options.session_expiry.count() >= 0 && options.session_expiry.count() < 0xFFFFFFFF,
          "session_expiry is out of range");
  Require(options.password.empty() || !options.username.empty(), "a password needs a username");
  Require(options.certificate_file.empty() == options.key_file.empty(),
          "certificate_file and key_file belong together");
  Require(options.certificate_file.empty() || !options.ca_file.empty(),
          "certificate_file needs ca_file");
  Require(!with_password || !options.ca_file.empty() || options.send_password_unencrypted ||
              IsLocalHost(options.host),
          "user name and password need ca_file, since they would be sent unencrypted");
  MakeTlsContext(options);
}

// Returns the MQTT topic.
std::string CheckedTopic(const detail::Core& core, const std::string& name) {
  auto topic = core.prefix + name;
  const bool allowed = !name.empty() && topic.front() != '$' && topic.size() <= 0xFFFF &&
                       mosquitto_validate_utf8(topic.data(), static_cast<int>(topic.size())) == 0 &&
                       mosquitto_pub_topic_check2(topic.data(), topic.size()) == 0;
  Require(allowed, "the topic \"" + topic + "\" is not allowed");
  return topic;
}

// A negative limit stands for no limit, which is a time so far away that adding it does not
// overflow.
Clock::time_point CloseDeadline(std::chrono::milliseconds limit) {
  constexpr std::chrono::milliseconds kYears = std::chrono::hours(87'600);
  return Clock::now() + (limit.count() < 0 ? kYears : std::min(limit, kYears));
}

// The threads that nobody joins, since their connections were destroyed on them. At exit, the
// destructor waits until they have ended: they use the bridge, which is destroyed next.
class DetachedThreads {
 public:
  // The first call must follow the first use of the bridge, so that this is destroyed before it.
  static DetachedThreads& Instance() {
    static DetachedThreads instance;
    return instance;
  }
  void AddThisThread() {
    const std::lock_guard lock(mutex_);
    threads_.insert(std::this_thread::get_id());
  }
  // Does nothing if it was not added.
  void RemoveThisThread() {
    const std::lock_guard lock(mutex_);
    threads_.erase(std::this_thread::get_id());
    removed_.notify_all();
  }

 private:
  ~DetachedThreads() {
    std::unique_lock lock(mutex_);
    threads_.erase(std::this_thread::get_id());  // a callable may call std::exit
    removed_.wait(lock, [this] { return threads_.empty(); });
  }

  std::mutex mutex_;
  std::condition_variable removed_;
  std::set<std::thread::id> threads_;
};

}  // namespace

Connection::Connection(const Options& options) : core_(std::make_shared<detail::Core>()) {
  static const int library = mosquitto_lib_init();
  Require(library == MOSQ_ERR_SUCCESS, "libmosquitto cannot be used");
  CheckOptions(options);
  core_->prefix = options.prefix;
  close_limit_ = options.close_limit;
  auto worker = std::make_unique<Worker>(options, core_);
  core_->worker = worker.get();
  DetachedThreads::Instance();
  thread_ = std::thread([worker = std::move(worker)]() mutable {
    worker->Run();
    worker.reset();
    DetachedThreads::Instance().RemoveThisThread();
  });
}

Connection::~Connection() {
  if (thread_.get_id() == std::this_thread::get_id()) {
    core_->worker->Stop(Clock::now());
    DetachedThreads::Instance().AddThisThread();
    thread_.detach();
    return;
  }
  const auto limit = CloseDeadline(close_limit_);
  core_->Post([limit](Worker& worker) { worker.Stop(limit); });
  thread_.join();
}

namespace detail {

ImportedTopic::ImportedTopic(const std::string& name)
    : control_(std::make_shared<bridge::Control>(
          bridge::Control{name, bridge::BridgeModule::Topic, bridge::BridgeType::Sync})) {
  bridge::Zorvix::GetInstance().RegisterPublisher(control_);
}

ImportedTopic::~ImportedTopic() { bridge::Zorvix::GetInstance().UnregisterPublisher(control_); }

void ImportedTopic::Publish(std::any&& any, const void* message) const {
  const Importing importing(message);
  bridge::Zorvix::GetInstance().Publish(control_, std::move(any));
}

// Shared with a task behind the last message that was pushed: so the relay outlives the export
// until the connection has taken what is pending.
struct Sender::Parts {
  Parts(Core& core, const std::string& name, Kind kind, KeepLast keep)
      : route(std::make_shared<Route>(name, CheckedTopic(core, name), kind == Kind::kState,
                                      core.unsent)),
        relay{OwnName(name)},
        publisher(relay, Audience::Optional),
        subscriber(
            relay, [worker = core.worker](const PendingMessage& it) { worker->Take(it); },
            *core.messages, keep) {}
  const std::shared_ptr<Route> route;
  const Topic<PendingMessage> relay;
  const Publisher<PendingMessage> publisher;
  const Subscriber<PendingMessage> subscriber;
};

Sender::Sender(Connection& connection, const std::string& name, Kind kind, KeepLast keep)
    : core_(connection.core_), parts_(std::make_shared<Parts>(*core_, name, kind, keep)) {
  core_->Post([route = parts_->route](Worker& worker) { worker.AddRoute(route); });
}

Sender::~Sender() {
  core_->PostBehindMessages([parts = parts_](Worker& worker) { worker.RemoveRoute(parts->route); });
}

bool Sender::Suppressed(const void* message) const {
  const auto& route = *parts_->route;
  return route.retained ? ImportedStates::Instance().Contains(route.name) : imported == message;
}

void Sender::Push(std::string text) {
  auto message = std::make_shared<Pending>(parts_->route, std::move(text));
  ++parts_->route->pushed;
  parts_->publisher.Publish(std::move(message));
}

void Sender::Reject() { parts_->route->rejected.Add("it cannot be written as text"); }

Amounts Sender::Count() const {
  const auto& route = *parts_->route;
  // A message may pass from one count to the next meanwhile, never back.
  const std::size_t kept = route.acknowledged + route.pending;
  const std::size_t pushed = route.pushed;
  return {route.pending, pushed - std::min(kept, pushed) + route.rejected.count};
}

// The part of an import that does not depend on the type of its messages.
class Receiver {
 public:
  Receiver(Connection& connection, const std::string& name, Kind kind, Handler handler);
  ~Receiver();
  Receiver(const Receiver&) = delete;
  std::size_t rejected() const { return incoming_->rejected.count; }

 private:
  const std::shared_ptr<Core> core_;
  const std::shared_ptr<Incoming> incoming_;
};

Receiver::Receiver(Connection& connection, const std::string& name, Kind kind, Handler handler)
    : core_(connection.core_),
      incoming_(std::make_shared<Incoming>(name, CheckedTopic(*core_, name), kind == Kind::kState,
                                           std::move(handler))) {
  if (incoming_->state) ImportedStates::Instance().Add(name);
  core_->Post([incoming = incoming_](Worker& worker) { worker.AddImport(incoming); });
}

Receiver::~Receiver() {
  incoming_->handling.reset();
  if (incoming_->state) ImportedStates::Instance().Remove(incoming_->name);
  core_->Post([incoming = incoming_](Worker& worker) { worker.RemoveImport(incoming); });
}

// An import, and its row of Inspect.
struct ListedReceiver {
  ListedReceiver(Connection& connection, const std::string& name, Kind kind, Handler handler,
                 zorvix::detail::Module& module)
      : receiver(connection, name, kind, std::move(handler)),
        listing("Import", name, module, [this] {
          return zorvix::detail::Counts{0, 0, receiver.rejected()};
        }) {}
  const Receiver receiver;
  const zorvix::detail::Listing listing;
};

std::shared_ptr<void> StartImport(Connection& connection, const std::string& name, Kind kind,
                                  Handler handler, zorvix::detail::Module& module) {
  return std::make_shared<ListedReceiver>(connection, name, kind, std::move(handler), module);
}

}  // namespace detail

}  // namespace mqtt
}  // namespace zorvix
