#include "connection.h"

#include <netdb.h>
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <ctime>
#include <exception>
#include <iterator>
#include <set>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace zorvix::mqtt {

using namespace std::chrono_literals;

namespace {

// What the broker may owe an acknowledgement for.
constexpr std::size_t kMaxInLink = 100;
constexpr std::size_t kMaxBytesInLink = std::size_t{1} << 20;
constexpr int kMaxHangUps = 3;
constexpr auto kMaxHoldTime = 10s;
constexpr std::size_t kMaxHeldBytes = std::size_t{4} << 20;
constexpr auto kAnswerTimeout = 10s;  // for an address, and then for the broker, to answer
constexpr std::chrono::milliseconds kFirstPause = 100ms;
constexpr auto kStableTime = 60s;  // after which a failure is a new one
constexpr auto kTick = 1s;

std::string RandomId() {
  std::random_device random;
  return "zorvix-" + std::to_string(random()) + "-" + std::to_string(random());
}

int Port(const Options& options) {
  if (options.port != 0) return options.port;
  return options.ca_file.empty() ? 1883 : 8883;
}

StreamPointer MakeStatusStream(const Options& options) {
  if (options.status_topic.empty()) return nullptr;
  StreamPointer stream(new detail::Stream{"zorvix/mqtt/status_topic",
                                          options.topic_prefix + options.status_topic,
                                          detail::Kind::kState, 1});
  stream->value = std::make_shared<const std::string>("online");  // sent on each connect
  return stream;
}

// While code of users runs on the connection's thread. Otherwise SIGPIPE is blocked, since a broker
// that goes away must not end the process.
class UserSignals {
 public:
  explicit UserSignals(const sigset_t& mask_of_users) {
    sigset_t broken_pipe;
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    constexpr timespec kNoTime{0, 0};
    sigtimedwait(&broken_pipe, nullptr, &kNoTime);  // the one of a broker, if there is one
    pthread_sigmask(SIG_SETMASK, &mask_of_users, &mask_);
  }
  ~UserSignals() { pthread_sigmask(SIG_SETMASK, &mask_, nullptr); }
  UserSignals(const UserSignals&) = delete;
  UserSignals& operator=(const UserSignals&) = delete;

 private:
  sigset_t mask_;
};

}  // namespace

Worker::Worker(Options options, std::shared_ptr<detail::Core> core)
    : options_(std::move(options)),
      client_id_(options_.client_id.empty() ? RandomId() : options_.client_id),
      core_(std::move(core)),
      status_holder_(options_.status),
      pause_(kFirstPause) {
  core_->tasks->fd();  // throws here and not on the thread
  if (const auto stream = MakeStatusStream(options_)) core_->outbox.Open(stream);
  status_.broker = options_.host + ":" + std::to_string(Port(options_));
  status_.reason = "not yet";
  status_holder_.Set(status_);
}

void Worker::Run() {
  sigset_t broken_pipe;
  sigemptyset(&broken_pipe);
  sigaddset(&broken_pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &broken_pipe, &user_signals_);
  while (!HasEnded()) {
    const auto failure = Attempt();
    link_.reset();
    TakeBack(failure);
    if (HasEnded()) break;
    if (failure) NoteFailure(*failure);
    Pause();
  }
  const std::size_t not_sent = core_->outbox.pending();
  core_->outbox.End();
  SetStatus(kClosed);
  BRIDGE_LOG(not_sent == 0 ? bridge::kLogInfo : bridge::kLogWarn,
             "MQTT closed, broker: %s, messages not sent: %zu", status_.broker.c_str(), not_sent);
  core_->tasks->Drain();
  core_->End();
}

bool Worker::HasEnded() {
  const auto stop_time = core_->stop_time.load();
  if (stop_time == Clock::time_point::max()) return false;
  has_ended_ = has_ended_ || core_->outbox.pending() == 0 || Clock::now() >= stop_time;
  return has_ended_;
}

// Connecting

Failure Worker::Attempt() {
  if (auto failure = AskCredentials()) return failure;
  const auto addresses = Resolve();
  auto failure = addresses.failure;
  for (const auto& address : addresses.numeric) {
    auto next = Open(address);
    if (!next) return Serve();
    if (HasEnded()) return next;
    // An address with a broker tells more than others.
    const bool has_broker = next->cause != kRefused && next->cause != kUnreachable;
    if (!failure || has_broker) failure = std::move(next);
  }
  return failure;
}

Failure Worker::AskCredentials() try {
  credentials_ = {options_.username, options_.password};
  if (!options_.credentials) return std::nullopt;
  const UserSignals user_signals(user_signals_);
  credentials_ = options_.credentials();
  return CheckCredentials(credentials_);
} catch (const std::exception&) {
  return Reason{kOptions, "the function for credentials has thrown an exception"};
}

// The system's look-up cannot be interrupted, so it has a thread of its own, which is left behind
// when the connection ends first.
Worker::Addresses Worker::Resolve() {
  found_.reset();
  const auto look_up = [core = core_, host = options_.host] {
    core->Post([addresses = LookUp(host)](Worker& worker) { worker.found_ = addresses; });
  };
  try {
    std::thread(look_up).detach();
  } catch (const std::system_error& error) {
    return {{}, Reason{kUnknownHost, error.what()}};
  }
  while (!found_ && Wait(0, Clock::now() + kTick)) {
  }
  return found_.value_or(Addresses{{}, Reason{kClosed, ""}});
}

Worker::Addresses Worker::LookUp(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int failure = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (failure != 0) return {{}, Reason{kUnknownHost, gai_strerror(failure)}};
  Addresses addresses;
  for (auto* entry = found; entry != nullptr; entry = entry->ai_next) {
    std::array<char, NI_MAXHOST> text{};
    if (getnameinfo(entry->ai_addr, entry->ai_addrlen, text.data(), text.size(), nullptr, 0,
                    NI_NUMERICHOST) == 0) {
      addresses.numeric.emplace_back(text.data());
    }
  }
  freeaddrinfo(found);
  return addresses;
}

// Returns nothing once the broker has accepted the connection.
Failure Worker::Open(const std::string& address) {
  link_ = std::make_unique<Link>(options_, client_id_);
  ready_ = 0;
  auto failure = link_->Open(address, Port(options_), credentials_);
  const auto reach_time = Clock::now() + kAnswerTimeout;
  while (!failure && (ready_ & ~POLLIN) == 0) {
    if (!Wait(POLLOUT, reach_time)) return Reason{kClosed, ""};
    if (Clock::now() >= reach_time) return Reason{kUnreachable, "no answer from " + address};
  }
  if (!failure) failure = link_->Reached();
  const auto answer_time = Clock::now() + kAnswerTimeout;
  while (!failure && !link_->connected()) {
    if (!Wait(POLLIN, answer_time)) return Reason{kClosed, ""};
    failure = Exchange();
    if (Clock::now() >= answer_time && !failure) failure = Reason{kNoAnswer, ""};
  }
  return failure;
}

// Logs the first of equal failures, until a connection has been stable.
void Worker::NoteFailure(const Reason& reason) {
  const bool is_new = reason.cause != cause_;
  if (is_new) {
    BRIDGE_LOG(bridge::kLogWarn, "MQTT not connected, broker: %s, reason: %s",
               status_.broker.c_str(), reason.text().c_str());
    cause_ = reason.cause;
    pause_ = kFirstPause;
  }
  if (is_new || status_.connected) SetStatus(reason.text());
}

// Pauses differ a little, so that many processes do not come back at the same moment.
void Worker::Pause() {
  const auto longest = std::min(pause_, options_.max_reconnect_delay);
  const auto until = Clock::now() + longest - longest * (random_() % 256) / 1024;
  while (Clock::now() < until && Wait(0, until)) {
  }
  pause_ = 2 * longest;
}

void Worker::SetStatus(const std::string& reason) {
  status_.connected = reason.empty();
  status_.reason = reason;
  ShareCounters();
  const UserSignals user_signals(user_signals_);
  status_holder_.Set(status_);
}

// Connected

Failure Worker::Serve() {
  const auto since = Clock::now();
  Welcome();
  Failure failure;
  while (!failure && !HasEnded()) {
    SendPending();
    Wait(link_->wants_write() ? POLLIN | POLLOUT : POLLIN, Clock::now() + kTick);
    failure = Exchange();
  }
  if (Clock::now() - since >= kStableTime) cause_ = nullptr;
  if (!failure) Farewell();
  return failure;
}

void Worker::Welcome() {
  BRIDGE_LOG(bridge::kLogInfo, "MQTT connected, broker: %s", status_.broker.c_str());
  ++status_.counters.connections;
  for (const auto& [topic, inlets] : imports_) {
    for (const auto& inlet : inlets) link_->Subscribe(topic, inlet->kind);
  }
  core_->outbox.RepeatStates();
  SetStatus("");
}

// Does what the socket is ready for.
Failure Worker::Exchange() {
  Failure failure;
  if ((ready_ & ~POLLOUT) != 0) failure = link_->Read();
  for (auto& message : std::exchange(link_->received, {})) {
    ++status_.counters.received;
    status_.counters.bytes_received += message.payload.size();
    received_.push_back(std::move(message));
  }
  Deliver();  // before Write, which acknowledges it
  // Destroyed by a callable. The broker keeps what has not been acknowledged.
  if (!received_.empty()) return std::nullopt;
  if (!failure && link_->wants_write()) failure = link_->Write();
  if (!failure) failure = link_->KeepAlive();
  if (!failure && (ready_ & (POLLERR | POLLHUP)) != 0) failure = link_->Lost();
  Acknowledge();
  return failure;
}

void Worker::Farewell() {
  if (!received_.empty()) return;
  link_->Disconnect();
  for (int tries = 10; link_->wants_write() && tries > 0; --tries) {
    if (link_->Write()) break;
    if (link_->wants_write()) Poll(POLLOUT, Clock::now() + 10ms);
  }
}

// Waits until the socket is ready, or there are tasks. Returns whether the worker goes on.
bool Worker::Wait(short events, Clock::time_point until) {
  ShareCounters();
  ready_ = Poll(events, std::min(until, core_->stop_time.load()));
  core_->tasks->Drain();
  Deliver();
  DropUnclaimed();
  return !HasEnded();
}

void Worker::ShareCounters() {
  const std::lock_guard lock(core_->mutex);
  core_->counters = status_.counters;
}

short Worker::Poll(short events, Clock::time_point until) {
  const auto left = std::clamp<Clock::duration>(until - Clock::now(), 0s, kTick);
  std::array<pollfd, 2> wanted{
      {{core_->tasks->fd(), POLLIN, 0}, {link_ ? link_->socket() : -1, events, 0}}};
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  poll(wanted.data(), wanted.size(), static_cast<int>(milliseconds));
  return wanted[1].revents;
}

// Imports

void Worker::AddImport(const InletPointer& inlet) {
  imports_[inlet->topic].push_back(inlet);
  if (IsConnected()) link_->Subscribe(inlet->topic, inlet->kind);
  const auto unclaimed = unclaimed_.extract(inlet->topic);
  if (!unclaimed) return;
  for (auto& message : TakeHeld(unclaimed.mapped())) received_.push_back(std::move(message));
}

void Worker::RemoveImport(const InletPointer& inlet) {
  const auto found = imports_.find(inlet->topic);
  if (found == imports_.end()) return;
  auto& inlets = found->second;
  inlets.erase(std::remove(inlets.begin(), inlets.end(), inlet), inlets.end());
  if (!inlets.empty()) return;
  imports_.erase(found);
  if (HasSession()) {
    // Not yet, since the whole process may be ending, and the session shall outlive it.
    unclaimed_.insert({inlet->topic, {Clock::now() + kMaxHoldTime, {}}});
  } else if (IsConnected()) {
    link_->Unsubscribe(inlet->topic);
  }
}

// The subscribers of imports are invoked here, under no lock. They may destroy the connection.
void Worker::Deliver() {
  if (received_.empty()) return;
  ShareCounters();
  const UserSignals user_signals(user_signals_);
  while (!received_.empty() && core_->stop_time.load() > Clock::now()) {
    auto message = std::move(received_.front());
    received_.pop_front();
    const auto found = imports_.find(message.topic);
    if (found == imports_.end()) {
      Hold(std::move(message));
      continue;
    }
    for (const auto& inlet : found->second) {
      if (message.payload.size() > options_.max_payload_size) {
        inlet->rejected.Add("it is too long");
      } else {
        inlet->Receive(message.payload);
      }
    }
  }
}

// Keeps a message of the session until its import is constructed.
void Worker::Hold(Link::Received message) {
  if (!HasSession()) return;  // its import has been destroyed meanwhile
  auto& [until, held] =
      unclaimed_.insert({message.topic, {Clock::now() + kMaxHoldTime, {}}}).first->second;
  if (held_bytes_ + message.payload.size() > kMaxHeldBytes) {
    RejectedHeld(message.topic).Add("too much arrives before its import is constructed");
    return;
  }
  held_bytes_ += message.payload.size();
  held.push_back(std::move(message));
}

std::vector<Link::Received> Worker::TakeHeld(Unclaimed& unclaimed) {
  for (const auto& message : unclaimed.held) held_bytes_ -= message.payload.size();
  return std::move(unclaimed.held);
}

// Gives up topics for which no import has been constructed in time.
void Worker::DropUnclaimed() {
  for (auto next = unclaimed_.begin(); next != unclaimed_.end();) {
    const auto current = next++;
    auto& [topic, unclaimed] = *current;
    if (unclaimed.until > Clock::now()) continue;
    const auto count = TakeHeld(unclaimed).size();
    if (count > 0) RejectedHeld(topic).Add("no import is constructed within 10 s", count);
    if (IsConnected()) link_->Unsubscribe(topic);
    unclaimed_.erase(current);
  }
}

Rejected& Worker::RejectedHeld(const std::string& topic) {
  return rejected_held_.try_emplace(topic, "import", topic).first->second;
}

// Exports

// A message that was not acknowledged when the broker hung up is sent alone, so that it is known
// whether it is the cause.
bool Worker::CanSend() const {
  const bool has_suspect = !sent_.empty() && sent_.front().hang_ups > 0;
  return !has_suspect && sent_.size() < kMaxInLink && bytes_in_link_ < kMaxBytesInLink;
}

void Worker::SendPending() {
  while (CanSend() && core_->outbox.Take(sent_)) {
    const auto message = std::prev(sent_.end());
    const auto& stream = *message->stream;
    const std::size_t size = message->text->size();
    bytes_in_link_ += size;
    const auto [number, refusal] = link_->Publish(stream.topic, *message->text, stream.kind);
    if (refusal != nullptr) {
      Finish(message, refusal);
      continue;
    }
    message->number = number;
    ++status_.counters.sent;
    status_.counters.bytes_sent += size;
    if (message->was_sent) ++status_.counters.sent_again;
  }
}

void Worker::Acknowledge() {
  for (const auto& [number, refusal] : std::exchange(link_->acknowledged, {})) {
    const auto message =
        std::find_if(sent_.begin(), sent_.end(),
                     [number = number](const Outgoing& sent) { return sent.number == number; });
    if (message == sent_.end()) continue;
    if (refusal == nullptr) ++status_.counters.acknowledged;
    Finish(message, refusal);
  }
}

void Worker::Finish(Messages::iterator message, const char* rejection) {
  bytes_in_link_ -= message->text->size();
  if (rejection != nullptr) message->stream->rejected.Add(rejection);
  core_->outbox.Finish(sent_, message);
}

// After a link has ended.
void Worker::TakeBack(const Failure& failure) {
  const bool broker_hung_up =
      failure && (failure->cause == kLost || failure->cause == kRefusesMessage);
  for (auto next = sent_.begin(); broker_hung_up && next != sent_.end();) {
    const auto message = next++;
    if (++message->hang_ups < kMaxHangUps) continue;
    message->stream->rejected.Add("the broker ends each connection on which it is sent");
    core_->outbox.GiveUp(sent_, message);
    pause_ = kFirstPause;
  }
  core_->outbox.TakeBack(sent_);
  bytes_in_link_ = 0;
}

namespace detail {

void Core::Post(std::function<void(Worker&)> task) {
  const std::lock_guard lock(mutex);
  if (tasks) tasks->Post([this, task = std::move(task)] { task(*worker); });
}

void Core::Stop(Clock::time_point time) {
  stop_time = time;
  Post([](Worker&) {});
}

void Core::End() {
  std::unique_ptr<Inbox> ended;  // destroyed after the lock
  const std::lock_guard lock(mutex);
  ended = std::move(tasks);
}

}  // namespace detail

namespace {

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

Connection::Connection(const Options& options)
    : core_(std::make_shared<detail::Core>()), close_timeout_(options.close_timeout) {
  static const int library = mosquitto_lib_init();
  if (library != MOSQ_ERR_SUCCESS) throw std::runtime_error("MQTT: libmosquitto cannot be used");
  CheckOptions(options);
  core_->topic_prefix = options.topic_prefix;
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
    core_->Stop(Clock::now());
    DetachedThreads::Instance().AddThisThread();
    thread_.detach();
    return;
  }
  constexpr std::chrono::milliseconds kYears = std::chrono::hours(87'600);
  core_->Stop(Clock::now() + std::min(close_timeout_, kYears));
  thread_.join();
}

Counters Connection::counters() const {
  const std::lock_guard lock(core_->mutex);
  return core_->counters;
}

}  // namespace zorvix::mqtt
