// The thread of a connection, and what it shares with exports and imports.
#ifndef ZORVIX_MQTT_CONNECTION_H_
#define ZORVIX_MQTT_CONNECTION_H_

#include <signal.h>
#include <zorvix/inbox.h>
#include <zorvix/mqtt.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "export.h"
#include "import.h"
#include "link.h"

namespace zorvix::mqtt {

class Worker;

// Throws std::invalid_argument.
void CheckOptions(const Options& options);
Failure CheckCredentials(const Credentials& credentials);
// Returns the MQTT topic. Throws std::invalid_argument.
std::string CheckedTopic(const std::string& prefix, const std::string& name,
                         const std::string& mqtt_topic);

namespace detail {

// What outlives the connection, for exports and imports that do.
struct Core {
  // Invokes task(worker) on the connection's thread, unless that has ended.
  void Post(std::function<void(Worker&)> task);
  // Lets the thread end once nothing is pending, or at that time.
  void Stop(Clock::time_point time);
  void End();  // by the worker, at its end; it invokes no further task

  std::string topic_prefix;
  Outbox outbox{[this] { Post([](Worker&) {}); }};
  Worker* worker = nullptr;
  std::unique_ptr<Inbox> tasks = std::make_unique<Inbox>("mqtt");
  std::atomic<Clock::time_point> stop_time{Clock::time_point::max()};
  std::mutex mutex;   // guards the pointer `tasks`, if it is not the worker that reads it, and
  Counters counters;  // a copy of the worker's
};

}  // namespace detail

class Worker {
 public:
  Worker(Options options, std::shared_ptr<detail::Core> core);
  // Returns after Core::Stop.
  void Run();

  // To be called on the worker's thread only.
  void AddImport(const InletPointer& inlet);
  void RemoveImport(const InletPointer& inlet);

 private:
  struct Addresses {
    std::vector<std::string> numeric;
    Failure failure;
  };
  // A topic of the session for which there is no import.
  struct Unclaimed {
    Clock::time_point until;
    std::vector<Link::Received> held;
  };

  bool HasEnded();
  bool HasSession() const { return !options_.client_id.empty(); }
  bool IsConnected() const { return link_ && link_->connected(); }

  Failure Attempt();
  Failure AskCredentials();
  Addresses Resolve();
  static Addresses LookUp(const std::string& host);  // blocks for as long as the system likes
  Failure Open(const std::string& address);
  void NoteFailure(const Reason& reason);
  void Pause();
  void SetStatus(const std::string& reason);  // empty: connected

  Failure Serve();  // returns nothing at an orderly end
  void Welcome();
  Failure Exchange();
  void Farewell();
  void ShareCounters();
  bool Wait(short events, Clock::time_point until);
  short Poll(short events, Clock::time_point until);

  void Deliver();
  void Hold(Link::Received message);
  std::vector<Link::Received> TakeHeld(Unclaimed& unclaimed);
  void DropUnclaimed();
  Rejected& RejectedHeld(const std::string& topic);

  bool CanSend() const;
  void SendPending();
  void Acknowledge();
  void Finish(Messages::iterator message, const char* rejection);  // nullptr: it is not rejected
  void TakeBack(const Failure& failure);

  const Options options_;
  const std::string client_id_;
  const std::shared_ptr<detail::Core> core_;
  sigset_t user_signals_{};  // the mask of the thread while code of users runs
  Status status_;            // with the present counters
  Holder<Status> status_holder_;
  Credentials credentials_;
  const char* cause_ = nullptr;  // of the last failure, as logged
  std::chrono::milliseconds pause_;
  std::minstd_rand random_{std::random_device()()};

  std::unique_ptr<Link> link_;
  short ready_ = 0;  // what poll says of its socket

  Messages sent_;                  // and not acknowledged
  std::size_t bytes_in_link_ = 0;  // of them

  std::unordered_map<std::string, std::vector<InletPointer>> imports_;  // by topic
  std::deque<Link::Received> received_;                                 // and not delivered
  std::map<std::string, Unclaimed> unclaimed_;                          // by topic
  std::size_t held_bytes_ = 0;                                          // in unclaimed_
  std::map<std::string, Rejected> rejected_held_;                       // by topic

  std::optional<Addresses> found_;  // by the look-up that is under way
  bool has_ended_ = false;
};

}  // namespace zorvix::mqtt

#endif  // ZORVIX_MQTT_CONNECTION_H_
