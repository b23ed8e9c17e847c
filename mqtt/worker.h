// The thread of a connection, and what it shares with exports and imports.
#ifndef ZORVIX_MQTT_WORKER_H_
#define ZORVIX_MQTT_WORKER_H_

#include <zorvix/inbox.h>
#include <zorvix/publisher.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "link.h"

namespace zorvix {
namespace mqtt {

using Clock = std::chrono::steady_clock;

// Messages that were rejected. Any thread adds, the connection's thread logs.
struct Rejected {
  void Add(const char* why) {
    reason = why;
    ++count;
  }
  std::atomic<unsigned long> count{0};
  std::atomic<const char*> reason{""};  // of the last; a literal
  unsigned long logged = 0;
  Clock::time_point next_line;
};

// Where an export sends to.
struct Route {
  using Total = std::shared_ptr<std::atomic<std::size_t>>;
  Route(std::string of, std::string mqtt_topic, bool is_state, Total of_connection)
      : name(std::move(of)),
        topic(std::move(mqtt_topic)),
        retained(is_state),
        total(std::move(of_connection)) {}
  const std::string name;
  const std::string topic;
  const bool retained;
  std::atomic<std::size_t> pushed{0};        // given to the inbox
  std::atomic<std::size_t> pending{0};       // of them, in the inbox, or sent
  std::atomic<std::size_t> acknowledged{0};  // of them; the inbox has dropped the others
  const Total total;                         // pending, for all exports of the connection
  Rejected rejected;
};

// A message that the broker has not acknowledged.
struct Pending {
  Pending(std::shared_ptr<Route> to, std::string what)
      : route(std::move(to)), text(std::move(what)) {
    ++route->pending;
    ++*route->total;
  }
  ~Pending() {
    --route->pending;
    --*route->total;
  }
  Pending(const Pending&) = delete;
  const std::shared_ptr<Route> route;
  const std::string text;
};
using PendingMessage = std::shared_ptr<const Pending>;

// Where an import receives from. The connection publishes payloads to a topic of its own, whose
// one subscriber gives the import the lifetime of a subscriber.
struct Incoming {
  Incoming(std::string of, std::string mqtt_topic, bool is_state, detail::Handler handler);
  const std::string name;
  const std::string topic;
  const bool state;
  Rejected rejected;
  const Topic<std::string> payloads;
  const Publisher<std::string> publisher;
  std::optional<Subscriber<std::string>> handling;
};

// Returns a name for a topic that nobody else uses.
std::string OwnName(const std::string& name);

class Worker;

namespace detail {

// What outlives the connection, for exports and imports that do.
struct Core {
  // Runs task(worker) on the connection's thread, unless that has ended.
  void Post(std::function<void(Worker&)> task);
  // Does the same, after all that exports have pushed so far.
  void PostBehindMessages(std::function<void(Worker&)> task);
  void Close();  // by the worker, at its end

  std::string prefix;
  const Route::Total unsent = std::make_shared<std::atomic<std::size_t>>(0);
  Worker* worker = nullptr;
  std::unique_ptr<Inbox> tasks = std::make_unique<Inbox>();
  std::unique_ptr<Inbox> messages = std::make_unique<Inbox>();  // of all exports

 private:
  std::mutex mutex_;
  bool closed_ = false;
};

}  // namespace detail

class Worker {
 public:
  Worker(Options options, std::shared_ptr<detail::Core> core);
  // Returns after Stop.
  void Run();

  // To be called on the worker's thread only.
  void Stop(Clock::time_point limit);
  void Take(PendingMessage message);
  void AddRoute(std::shared_ptr<Route> route) { routes_.push_back(std::move(route)); }
  void RemoveRoute(const std::shared_ptr<Route>& route);
  void AddImport(std::shared_ptr<Incoming> import);
  void RemoveImport(const std::shared_ptr<Incoming>& import);

 private:
  struct Sent {
    PendingMessage message;
    int number;  // of the message in this link
  };
  struct Addresses {
    std::vector<std::string> numeric;
    std::string error;
  };

  std::string Attempt();
  Addresses Resolve();
  std::string Open(const std::string& address);
  std::string Serve();
  void Welcome();
  std::string Exchange(short events);
  void Deliver();
  void Acknowledge();
  void LogSubscriptions();
  void SendPending();
  void Send(Sent& sent);
  void Pause();
  bool Wait(short events, Clock::time_point until);
  short Poll(short events, Clock::time_point until);
  bool Ended();
  void Report();
  template <typename Channel>
  void ReportRejected(Channel& channel, const char* kind);
  void SetStatus(bool connected, const std::string& why_not);

  const Options options_;
  const std::string broker_;  // host:port
  const std::string client_id_;
  const std::shared_ptr<detail::Core> core_;
  Holder<Status> status_;
  std::string why_not_;  // as logged
  std::chrono::milliseconds pause_;
  std::minstd_rand random_{std::random_device()()};

  std::unique_ptr<Link> link_;
  short ready_ = 0;                                         // what poll says of its socket
  std::list<Sent> sent_;                                    // and not acknowledged
  std::unordered_map<std::string, PendingMessage> states_;  // last sent, by topic
  std::vector<std::shared_ptr<Route>> routes_;
  std::vector<std::shared_ptr<Incoming>> imports_;

  std::optional<Addresses> found_;  // by the look-up that is under way
  int last_refused_ = 0;
  bool stopping_ = false;
  bool ended_ = false;
  Clock::time_point limit_;
};

}  // namespace mqtt
}  // namespace zorvix

#endif  // ZORVIX_MQTT_WORKER_H_
