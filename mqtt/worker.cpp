#include "worker.h"

#include <netdb.h>
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <system_error>
#include <thread>

// Not __FILE__, so that lines are the same wherever this is built.
#define MQTT_LOG(priority, ...) \
  ::bridge::WriteLog(priority, "mqtt/worker.cpp", __LINE__, __VA_ARGS__)

namespace zorvix {
namespace mqtt {

using namespace std::chrono_literals;

namespace {

constexpr std::size_t kUnacknowledged = 100;  // messages that the broker may owe an acknowledgement
constexpr auto kAnswerLimit = 10s;            // for an address, and then for the broker, to answer
constexpr auto kFirstPause = 100ms;
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

// Blocks for as long as the system likes.
std::vector<std::string> LookUp(const std::string& host, std::string& error) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int failure = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (failure != 0) error = gai_strerror(failure);
  std::vector<std::string> addresses;
  for (auto* entry = found; entry != nullptr; entry = entry->ai_next) {
    std::array<char, NI_MAXHOST> text{};
    if (getnameinfo(entry->ai_addr, entry->ai_addrlen, text.data(), text.size(), nullptr, 0,
                    NI_NUMERICHOST) == 0) {
      addresses.emplace_back(text.data());
    }
  }
  if (found != nullptr) freeaddrinfo(found);
  return addresses;
}

template <typename Shared>
void Remove(std::vector<Shared>& from, const Shared& entry) {
  from.erase(std::remove(from.begin(), from.end(), entry), from.end());
}

}  // namespace

std::string OwnName(const std::string& name) {
  static std::atomic<unsigned long> last{0};
  return "zorvix/mqtt/" + std::to_string(++last) + "/" + name;
}

Incoming::Incoming(std::string of, std::string mqtt_topic, bool is_state, detail::Handler handler)
    : name(std::move(of)),
      topic(std::move(mqtt_topic)),
      state(is_state),
      payloads{OwnName(name)},
      publisher(payloads, Audience::Optional) {
  handling.emplace(payloads, [this, handler = std::move(handler)](const std::string& payload) {
    if (!handler(payload)) rejected.Add("its text cannot be read");
  });
}

namespace detail {

void Core::Post(std::function<void(Worker&)> task) {
  const std::lock_guard lock(mutex_);
  if (!closed_) tasks->Post([this, task = std::move(task)] { task(*worker); });
}

void Core::PostBehindMessages(std::function<void(Worker&)> task) {
  const std::lock_guard lock(mutex_);
  if (!closed_) messages->Post([this, task = std::move(task)] { task(*worker); });
}

void Core::Close() {
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
  }
  tasks.reset();
  messages.reset();
}

}  // namespace detail

Worker::Worker(Options options, std::shared_ptr<detail::Core> core)
    : options_(std::move(options)),
      broker_(options_.host + ":" + std::to_string(Port(options_))),
      client_id_(options_.client_id.empty() ? RandomId() : options_.client_id),
      core_(std::move(core)),
      status_(options_.status),
      pause_(kFirstPause) {
  core_->tasks->fd();  // throws here and not on the thread
  core_->messages->fd();
  SetStatus(false, "not yet");
}

void Worker::Run() {
  // A broker that goes away must not end the process.
  sigset_t broken_pipe;
  sigemptyset(&broken_pipe);
  sigaddset(&broken_pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);

  while (!Ended()) {
    const auto why_not = Attempt();
    if (Ended()) break;
    link_.reset();
    if (why_not != why_not_) {
      MQTT_LOG(bridge::kLogWarn, "MQTT not connected, broker: %s, reason: %s", broker_.c_str(),
               why_not.c_str());
      why_not_ = why_not;
    }
    SetStatus(false, why_not);
    Pause();
  }
  const std::size_t unsent = *core_->unsent;
  link_.reset();
  SetStatus(false, "closed");
  MQTT_LOG(unsent == 0 ? bridge::kLogInfo : bridge::kLogWarn,
           "MQTT closed, broker: %s, messages not sent: %zu", broker_.c_str(), unsent);
  core_->Close();
}

void Worker::Stop(Clock::time_point limit) {
  stopping_ = true;
  limit_ = limit;
}

bool Worker::Ended() {
  ended_ = ended_ || (stopping_ && (*core_->unsent == 0 || Clock::now() >= limit_));
  return ended_;
}

// Returns why there is no connection any more.
std::string Worker::Attempt() {
  const auto addresses = Resolve();
  std::string why_not = addresses.error;
  for (const auto& address : addresses.numeric) {
    why_not = Open(address);
    if (Ended()) return why_not;
    if (why_not.empty()) return Serve();
  }
  return why_not;
}

// The system's look-up cannot be interrupted, so it has a thread of its own, which is left behind
// when the connection ends first.
Worker::Addresses Worker::Resolve() {
  found_.reset();
  const auto look_up = [core = core_, host = options_.host] {
    Addresses addresses;
    addresses.numeric = LookUp(host, addresses.error);
    core->Post([addresses = std::move(addresses)](Worker& worker) { worker.found_ = addresses; });
  };
  try {
    std::thread(look_up).detach();
  } catch (const std::system_error& error) {
    return {{}, error.what()};
  }
  while (!found_ && Wait(0, Clock::now() + kTick)) {
  }
  return found_.value_or(Addresses());
}

// Returns an empty text once the broker has accepted the connection.
std::string Worker::Open(const std::string& address) {
  link_ = std::make_unique<Link>(options_, client_id_);
  ready_ = 0;
  auto why_not = link_->Open(address, Port(options_));
  const auto reach_limit = Clock::now() + kAnswerLimit;
  while (why_not.empty() && (ready_ & ~POLLIN) == 0) {
    if (!Wait(POLLOUT, reach_limit)) return "closed";
    if (Clock::now() >= reach_limit) return "no answer from " + address;
  }
  if (why_not.empty()) why_not = link_->Reached();
  const auto answer_limit = Clock::now() + kAnswerLimit;
  while (why_not.empty() && !link_->connected()) {
    if (!Wait(POLLIN, answer_limit)) return "closed";
    why_not = Exchange(POLLIN | POLLOUT);
    if (Clock::now() >= answer_limit) return "the broker does not answer";
  }
  return why_not;
}

std::string Worker::Serve() {
  const auto since = Clock::now();
  Welcome();
  std::string why_not;
  while (why_not.empty() && !Ended()) {
    SendPending();
    const short events = link_->wants_write() ? POLLIN | POLLOUT : POLLIN;
    Wait(events, Clock::now() + kTick);
    why_not = Exchange(events);
    Deliver();
  }
  if (Clock::now() - since > pause_) pause_ = kFirstPause;
  if (why_not.empty()) {
    link_->Disconnect();
    for (int tries = 10; link_->wants_write() && tries > 0; --tries) {
      Poll(POLLOUT, Clock::now() + 10ms);
      if (!link_->Write().empty()) break;
    }
  }
  return why_not;
}

// Sends again what the last link has not brought to an end.
void Worker::Welcome() {
  MQTT_LOG(bridge::kLogInfo, "MQTT connected, broker: %s", broker_.c_str());
  why_not_.clear();
  for (const auto& import : imports_) link_->Subscribe(import->topic, import->state);
  auto states = states_;
  for (auto& sent : sent_) {
    states.erase(sent.message->route->topic);
    Send(sent);
  }
  for (const auto& [topic, message] : states) Send(sent_.emplace_back(Sent{message, 0}));
  SetStatus(true, "");
}

// Does what the socket is ready for.
std::string Worker::Exchange(short events) {
  std::string why_not;
  if ((ready_ & ~POLLOUT) != 0) why_not = link_->Read();
  if (why_not.empty() && (events & POLLOUT) != 0) why_not = link_->Write();
  if (why_not.empty()) why_not = link_->KeepAlive();
  if (why_not.empty() && (ready_ & (POLLERR | POLLHUP)) != 0) {
    why_not = "the connection was lost";
  }
  Acknowledge();
  LogSubscriptions();
  return why_not;
}

// The subscribers of imports run here, under no lock.
void Worker::Deliver() {
  for (auto& message : std::exchange(link_->received, {})) {
    if (Ended()) return;
    const auto imports = imports_;
    bool known = false;
    for (const auto& import : imports) {
      if (import->topic != message.topic) continue;
      known = true;
      if (message.size > options_.payload_limit) {
        import->rejected.Add("it is too long");
      } else {
        import->publisher.Publish(message.payload);
      }
    }
    if (!known) link_->Unsubscribe(message.topic);  // from a session of an earlier process
  }
}

void Worker::LogSubscriptions() {
  for (const auto& [topic, refusal] : std::exchange(link_->subscribed, {})) {
    if (refusal == nullptr) {
      MQTT_LOG(bridge::kLogInfo, "MQTT subscribed, topic: %s", topic.c_str());
    } else {
      MQTT_LOG(bridge::kLogWarn, "MQTT subscription refused, topic: %s, reason: %s", topic.c_str(),
               refusal);
    }
  }
}

void Worker::Acknowledge() {
  for (const auto& acknowledged : std::exchange(link_->acknowledged, {})) {
    const auto sent = std::find_if(sent_.begin(), sent_.end(), [&](const Sent& one) {
      return one.number == acknowledged.number;
    });
    if (sent == sent_.end()) continue;
    Route& route = *sent->message->route;
    if (acknowledged.refusal != nullptr) route.rejected.Add(acknowledged.refusal);
    ++route.acknowledged;
    sent_.erase(sent);
  }
}

// Takes messages one by one, since what is not taken stays in the inbox, whose depth applies.
void Worker::SendPending() {
  while (sent_.size() < kUnacknowledged && core_->messages->Drain(0ms) != 0) {
  }
}

// In a drain of the messages.
void Worker::Take(PendingMessage message) {
  if (message->route->retained) states_.insert_or_assign(message->route->topic, message);
  Send(sent_.emplace_back(Sent{std::move(message), 0}));
}

// Hands it to the link. It is sent again by the next link if this one ends before it is
// acknowledged.
void Worker::Send(Sent& sent) {
  const auto& route = *sent.message->route;
  const char* const never =
      link_->Publish(route.topic, sent.message->text, route.retained, sent.number);
  if (never == nullptr) return;
  sent.number = --last_refused_;  // as no other
  link_->acknowledged.push_back({sent.number, never});
}

void Worker::RemoveRoute(const std::shared_ptr<Route>& route) {
  core_->tasks->Drain();  // the route may not have been added yet
  states_.erase(route->topic);
  Remove(routes_, route);
}

void Worker::AddImport(std::shared_ptr<Incoming> import) {
  if (link_ && link_->connected()) link_->Subscribe(import->topic, import->state);
  imports_.push_back(std::move(import));
}

void Worker::RemoveImport(const std::shared_ptr<Incoming>& import) {
  Remove(imports_, import);
  const auto same_topic = [&](const auto& other) { return other->topic == import->topic; };
  if (std::any_of(imports_.begin(), imports_.end(), same_topic)) return;
  if (link_ && link_->connected()) link_->Unsubscribe(import->topic);
}

// Pauses differ a little, so that many processes do not come back at the same moment.
void Worker::Pause() {
  const auto until = Clock::now() + pause_ - pause_ * (random_() % 256) / 1024;
  while (Clock::now() < until && Wait(0, until)) {
  }
  pause_ = std::min(pause_ * 2, std::max<std::chrono::milliseconds>(options_.longest_pause, 1ms));
}

// Waits until the socket is ready, there are tasks or, if connected, messages to be sent. Returns
// whether the worker goes on.
bool Worker::Wait(short events, Clock::time_point until) {
  ready_ = Poll(events, stopping_ ? std::min(until, limit_) : until);
  core_->tasks->Drain();
  Report();
  return !Ended();
}

short Worker::Poll(short events, Clock::time_point until) {
  const auto now = Clock::now();
  const auto left = std::min<Clock::duration>(std::max<Clock::duration>(until - now, 0s), kTick);
  const bool sends = link_ && link_->connected() && sent_.size() < kUnacknowledged;
  std::array<pollfd, 3> wanted{{{core_->tasks->fd(), POLLIN, 0},
                                {link_ ? link_->socket() : -1, events, 0},
                                {sends ? core_->messages->fd() : -1, POLLIN, 0}}};
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  poll(wanted.data(), wanted.size(), static_cast<int>(milliseconds));
  return wanted[1].revents;
}

void Worker::Report() {
  for (const auto& route : routes_) ReportRejected(*route, "export");
  for (const auto& import : imports_) ReportRejected(*import, "import");
}

template <typename Channel>
void Worker::ReportRejected(Channel& channel, const char* kind) {
  auto& rejected = channel.rejected;
  const unsigned long count = rejected.count;
  if (count == rejected.logged || Clock::now() < rejected.next_line) return;
  MQTT_LOG(bridge::kLogWarn, "MQTT %s rejects messages, name: %s, so far: %lu, last reason: %s",
           kind, channel.name.c_str(), count, rejected.reason.load());
  rejected.logged = count;
  rejected.next_line = Clock::now() + 1s;
}

void Worker::SetStatus(bool connected, const std::string& why_not) {
  status_.Set({connected, broker_, why_not});
}

}  // namespace mqtt
}  // namespace zorvix
