#include "connection.h"

#include <netdb.h>
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <exception>
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
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "zorvix-%08x%08x", random(), random());
  return text.data();
}

int Port(const Options& options) {
  if (options.port != 0) return options.port;
  return options.ca_file.empty() ? 1883 : 8883;
}

std::size_t SizeOf(const Link::Received& message) {
  return message.payload ? message.payload->size() : 0;
}

StreamPointer MakeStatusStream(const Options& options) {
  if (options.status_topic.empty()) return nullptr;
  auto stream = std::make_shared<detail::Stream>("zorvix/mqtt/status_topic",
                                                 options.topic_prefix + options.status_topic,
                                                 detail::Kind::kState, 1);
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

 private:
  sigset_t mask_;
};

}  // namespace

Worker::Worker(Options options, std::shared_ptr<detail::Core> core)
    : options_(std::move(options)),
      broker_(options_.host + ":" + std::to_string(Port(options_))),
      client_id_(options_.client_id.empty() ? RandomId() : options_.client_id),
      core_(std::move(core)),
      status_holder_(options_.status),
      max_pause_(options_.max_reconnect_delay),
      pause_(std::min(kFirstPause, max_pause_)) {
  core_->tasks->fd();  // throws here and not on the thread
  if (const auto stream = MakeStatusStream(options_)) core_->outbox.Open(stream);
  status_.broker = broker_;
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
    if (HasEnded()) break;
    link_.reset();
    if (failure) NoteFailure(*failure);
    Pause();
  }
  const std::size_t not_sent = core_->outbox.pending();
  link_.reset();
  core_->outbox.End();
  while (!unfinished_.empty()) Finish(unfinished_.begin(), nullptr);
  SetStatus(false, kClosed);
  BRIDGE_LOG(not_sent == 0 ? bridge::kLogInfo : bridge::kLogWarn,
             "MQTT closed, broker: %s, messages not sent: %zu", broker_.c_str(), not_sent);
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
  if (!addresses.error.empty()) return Reason{kUnknownHost, addresses.error};
  Failure failure;
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
  const auto problem = CheckCredentials(credentials_);
  return problem ? Failure({kOptions, *problem}) : std::nullopt;
} catch (const std::exception&) {
  return Reason{kOptions, "the function for credentials has thrown an exception"};
}

// The system's look-up cannot be interrupted, so it has a thread of its own, which is left behind
// when the connection ends first.
Worker::Addresses Worker::Resolve() {
  if (IsAddress(options_.host)) return {{options_.host}, ""};
  found_.reset();
  const auto look_up = [core = core_, host = options_.host] {
    core->Post([addresses = LookUp(host)](Worker& worker) { worker.found_ = addresses; });
  };
  try {
    std::thread(look_up).detach();
  } catch (const std::system_error& error) {
    return {{}, error.what()};
  }
  while (!found_ && Wait(0, Clock::now() + kTick)) {
  }
  return found_.value_or(Addresses{{}, kClosed});
}

Worker::Addresses Worker::LookUp(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int failure = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (failure != 0) return {{}, gai_strerror(failure)};
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
    BRIDGE_LOG(bridge::kLogWarn, "MQTT not connected, broker: %s, reason: %s", broker_.c_str(),
               reason.text().c_str());
    cause_ = reason.cause;
    pause_ = std::min(kFirstPause, max_pause_);
  }
  if (is_new || status_.connected) SetStatus(false, reason.text());
}

// Pauses differ a little, so that many processes do not come back at the same moment.
void Worker::Pause() {
  const auto until = Clock::now() + pause_ - pause_ * (random_() % 256) / 1024;
  while (Clock::now() < until && Wait(0, until)) {
  }
  pause_ = std::min(pause_ * 2, max_pause_);
}

void Worker::SetStatus(bool connected, const std::string& reason) {
  status_.connected = connected;
  status_.reason = reason;
  status_.counters = core_->Count();
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
    if (link_->wants_write()) failure = link_->Write();
    if (failure) break;
    Wait(link_->wants_write() ? POLLIN | POLLOUT : POLLIN, Clock::now() + kTick);
    failure = Exchange();
  }
  if (Clock::now() - since >= kStableTime) cause_ = nullptr;
  if (failure) {
    TakeBack(failure->cause == kLost || failure->cause == kRefusesMessage);
  } else {
    Farewell();
  }
  return failure;
}

void Worker::Welcome() {
  BRIDGE_LOG(bridge::kLogInfo, "MQTT connected, broker: %s", broker_.c_str());
  ++core_->connections;
  for (const auto& [topic, inlets] : imports_) {
    for (const auto& inlet : inlets) link_->Subscribe(topic, inlet->kind == detail::Kind::kState);
  }
  core_->outbox.RepeatStates();
  SetStatus(true, "");
}

// Does what the socket is ready for.
Failure Worker::Exchange() {
  Failure failure;
  if ((ready_ & ~POLLOUT) != 0) failure = link_->Read();
  for (auto& message : std::exchange(link_->received, {})) {
    ++core_->received;
    core_->bytes_received += SizeOf(message);
    received_.push_back(std::move(message));
  }
  Deliver();  // before Write, which acknowledges it
  // Destroyed by a callable. The broker keeps what has not been acknowledged.
  if (!received_.empty()) return std::nullopt;
  if (!failure && link_->wants_write()) failure = link_->Write();
  if (!failure) failure = link_->KeepAlive();
  if (!failure && (ready_ & (POLLERR | POLLHUP)) != 0) failure = link_->Lost();
  Acknowledge();
  LogSubscriptions();
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
  ready_ = Poll(events, std::min(until, core_->stop_time.load()));
  core_->tasks->Drain();
  Deliver();
  DropUnclaimed();
  return !HasEnded();
}

short Worker::Poll(short events, Clock::time_point until) {
  const auto now = Clock::now();
  const auto left = std::min<Clock::duration>(std::max<Clock::duration>(until - now, 0s), kTick);
  std::array<pollfd, 2> wanted{
      {{core_->tasks->fd(), POLLIN, 0}, {link_ ? link_->socket() : -1, events, 0}}};
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  poll(wanted.data(), wanted.size(), static_cast<int>(milliseconds));
  return wanted[1].revents;
}

// Imports

void Worker::AddImport(const InletPointer& inlet) {
  imports_[inlet->topic].push_back(inlet);
  if (IsConnected()) link_->Subscribe(inlet->topic, inlet->kind == detail::Kind::kState);
  unclaimed_.erase(inlet->topic);
  for (auto& message : TakeHeld(inlet->topic)) received_.push_back(std::move(message));
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
    unclaimed_.emplace(inlet->topic, Clock::now() + kMaxHoldTime);
  } else if (IsConnected()) {
    link_->Unsubscribe(inlet->topic);
  }
}

// The subscribers of imports are invoked here, under no lock. They may destroy the connection.
void Worker::Deliver() {
  if (received_.empty()) return;
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
      if (!message.payload) {
        inlet->rejected->Add("it is too long");
      } else if (!inlet->Invoke(*message.payload)) {
        inlet->rejected->Add("it cannot be decoded");
      }
    }
  }
}

// Keeps a message of the session until its import is constructed.
void Worker::Hold(Link::Received message) {
  if (!HasSession()) return;  // its import has been destroyed meanwhile
  unclaimed_.emplace(message.topic, Clock::now() + kMaxHoldTime);
  if (held_bytes_ + SizeOf(message) > kMaxHeldBytes) {
    RejectHeld(message.topic, "too much arrives before its import is constructed");
    return;
  }
  held_bytes_ += SizeOf(message);
  held_.push_back(std::move(message));
}

std::vector<Link::Received> Worker::TakeHeld(const std::string& topic) {
  std::vector<Link::Received> taken;
  for (auto& message : std::exchange(held_, {})) {
    if (message.topic != topic) {
      held_.push_back(std::move(message));
      continue;
    }
    held_bytes_ -= SizeOf(message);
    taken.push_back(std::move(message));
  }
  return taken;
}

// Gives up topics for which no import has been constructed in time.
void Worker::DropUnclaimed() {
  for (auto next = unclaimed_.begin(); next != unclaimed_.end();) {
    const auto unclaimed = next++;
    const auto& [topic, until] = *unclaimed;
    if (until > Clock::now()) continue;
    for (std::size_t count = TakeHeld(topic).size(); count > 0; --count) {
      RejectHeld(topic, "no import is constructed within 10 s");
    }
    if (IsConnected()) link_->Unsubscribe(topic);
    unclaimed_.erase(unclaimed);
  }
}

void Worker::RejectHeld(const std::string& topic, const char* reason) {
  rejected_held_.try_emplace(topic, "import", topic).first->second.Add(reason);
}

void Worker::LogSubscriptions() {
  for (const auto& [topic, refusal] : std::exchange(link_->subscribed, {})) {
    if (refusal == nullptr) {
      BRIDGE_LOG(bridge::kLogInfo, "MQTT subscribed, topic: %s", topic.c_str());
    } else {
      BRIDGE_LOG(bridge::kLogWarn, "MQTT subscription refused, topic: %s, reason: %s",
                 topic.c_str(), refusal);
    }
  }
}

// Exports

// A message that was not acknowledged when the broker hung up is sent alone, so that it is known
// whether it is the cause.
bool Worker::CanSend() const {
  const bool has_suspect = !unfinished_.empty() && unfinished_.front().hang_ups > 0;
  const std::size_t max_in_link = has_suspect ? 1 : kMaxInLink;
  return in_link_ < max_in_link && bytes_in_link_ < kMaxBytesInLink;
}

// First what an earlier link has not brought to an end.
void Worker::SendPending() {
  while (CanSend()) {
    if (in_link_ < unfinished_.size()) {
      Send(std::next(unfinished_.begin(), static_cast<std::ptrdiff_t>(in_link_)));
      continue;
    }
    auto message = core_->outbox.Take();
    if (!message) return;
    Send(unfinished_.insert(unfinished_.end(), std::move(*message)));
  }
}

void Worker::Send(Message message) {
  const auto& stream = *message->stream;
  const bool is_state = stream.kind == detail::Kind::kState;
  if (is_state && IsImportedState(stream.name)) {
    Finish(message, nullptr);
    return;
  }
  const auto [number, refusal] = link_->Publish(stream.topic, *message->text, is_state);
  if (refusal != nullptr) {
    Finish(message, refusal);
    return;
  }
  message->number = number;
  ++in_link_;
  bytes_in_link_ += message->text->size();
  ++core_->sent;
  core_->bytes_sent += message->text->size();
  if (message->was_sent) ++core_->sent_again;
  message->was_sent = true;
}

void Worker::Acknowledge() {
  for (const auto& [number, refusal] : std::exchange(link_->acknowledged, {})) {
    const auto message =
        std::find_if(unfinished_.begin(), unfinished_.end(),
                     [number = number](const Outgoing& one) { return one.number == number; });
    if (message == unfinished_.end()) continue;
    if (refusal == nullptr) ++core_->acknowledged;
    Finish(message, refusal);
  }
}

// Ends what the link knows of a message.
void Worker::TakeOut(Outgoing& message) {
  if (std::exchange(message.number, 0) == 0) return;
  --in_link_;
  bytes_in_link_ -= message.text->size();
}

void Worker::Finish(Message message, const char* rejection) {
  TakeOut(*message);
  if (rejection != nullptr) message->stream->rejected.Add(rejection);
  core_->outbox.Finish(*message);
  unfinished_.erase(message);
}

// After a link has ended.
void Worker::TakeBack(bool broker_hung_up) {
  for (auto next = unfinished_.begin(); next != unfinished_.end();) {
    const auto message = next++;
    const bool was_in_link = message->number != 0;
    TakeOut(*message);
    if (!was_in_link || !broker_hung_up || ++message->hang_ups < kMaxHangUps) continue;
    Finish(message, "the broker ends each connection on which it is sent");
    pause_ = std::min(kFirstPause, max_pause_);
  }
}

namespace detail {

void Core::Post(std::function<void(Worker&)> task) {
  const std::lock_guard lock(mutex_);
  if (!has_ended_) tasks->Post([this, task = std::move(task)] { task(*worker); });
}

void Core::Stop(Clock::time_point time) {
  stop_time = time;
  Post([](Worker&) {});
}

void Core::End() {
  {
    const std::lock_guard lock(mutex_);
    has_ended_ = true;
  }
  tasks.reset();
}

Counters Core::Count() const {
  return {connections, sent, sent_again, acknowledged, received, bytes_sent, bytes_received};
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

Counters Connection::counters() const { return core_->Count(); }

}  // namespace zorvix::mqtt
