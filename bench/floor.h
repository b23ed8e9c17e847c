// The least that the bridge's behaviour can cost: the steps of its operations written by hand, with
// nothing that is not a step. Each function serves one kind of endpoint and trusts its arguments:
// nothing is checked, nothing can fail but a callback, and the only log line is the one that every
// task taken from the queue must write. The steps are those of the bridge, data structures included
// (one table of names, one of callback lists by address, lists that are shared and replaced), so
// the floor is a measure of the code around the steps, not of the steps.
#ifndef ZORVIX_BENCH_FLOOR_H_
#define ZORVIX_BENCH_FLOOR_H_

#include <zorvix/zorvix.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

class ZORVIX_EXPORT Floor {
 public:
  // Topics of type Sync.
  void Subscribe(std::shared_ptr<const bridge::Control>& control,
                 const bridge::SubscriberCallback& callback);
  void Unsubscribe(std::shared_ptr<const bridge::Control>& control, const void* callback);
  void Publish(const std::shared_ptr<const bridge::Control>& control,
               const bridge::Message& message);

  // Topics of type Async; subscribed to by Subscribe, too.
  void Post(const std::shared_ptr<const bridge::Control>& control, bridge::Message&& message);
  bool Step();  // takes and runs one task
  void Start();
  void Work();  // takes and runs tasks between Start and Stop
  void Stop();

  // Services of type Sync.
  void Serve(const std::shared_ptr<const bridge::Control>& control,
             const bridge::ServerCallback& server);
  void Call(const std::shared_ptr<const bridge::Control>& control,
            const bridge::RequestCallback& request);

 private:
  using Callbacks = std::vector<bridge::SubscriberCallback>;

  std::mutex controls_mutex_;
  std::unordered_map<std::string, std::weak_ptr<const bridge::Control>> controls_;

  std::mutex subscribers_mutex_;
  std::unordered_map<const bridge::Control*, std::shared_ptr<const Callbacks>> subscribers_;

  std::mutex servers_mutex_;
  std::unordered_map<const bridge::Control*, bridge::ServerCallback> servers_;

  std::mutex events_mutex_;
  std::deque<bridge::Task> events_;
  std::condition_variable events_cv_;
  bool stop_ = false;
};

#endif  // ZORVIX_BENCH_FLOOR_H_
