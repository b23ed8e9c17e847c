// The exports of a connection: bounded queues that any thread fills and the connection's thread
// empties.
#ifndef ZORVIX_MQTT_EXPORT_H_
#define ZORVIX_MQTT_EXPORT_H_

#include <zorvix/mqtt.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <utility>

#include "rejected.h"

namespace zorvix::mqtt {

using StreamPointer = std::shared_ptr<detail::Stream>;
using Text = std::shared_ptr<const std::string>;

// A message of an export that is not acknowledged.
struct Outgoing {
  StreamPointer stream;
  Text text;
  bool was_sent;     // on an earlier link, also if it is a value that was acknowledged there
  int number = 0;    // in the present link
  int hang_ups = 0;  // connections that the broker ended while this message was not acknowledged
};
using Messages = std::list<Outgoing>;

namespace detail {

// An export. What is not const is guarded by the mutex of its Outbox.
struct Stream {
  const std::string name;
  const std::string topic;
  const Kind kind;
  const std::size_t depth;
  Rejected rejected{"export", name};         // guards itself
  std::deque<Messages::iterator> waiting{};  // its messages that have not been taken yet
  std::size_t pending = 0;                   // all its messages
  std::size_t dropped = 0;
  Text value{};  // the latest of a state, which is sent on each connect
};

}  // namespace detail

// Messages are taken in the order in which they were pushed, whichever export they are from. Where
// an export drops its oldest message, the next one takes its place.
class Outbox {
 public:
  // `wake` makes the connection's thread take messages.
  explicit Outbox(std::function<void()> wake) : wake_(std::move(wake)) {}

  // For exports, on any thread:
  void Open(const StreamPointer& stream);
  void Close(const StreamPointer& stream);  // what is pending is still sent
  void Push(const StreamPointer& stream, std::string text);
  // Forgets the values of a state that somebody else holds now.
  void Forget(const StreamPointer& stream);
  zorvix::detail::Counts Count(const StreamPointer& stream);

  // For the connection's thread:
  // Appends the next message to `taken`. If there is none, it returns false, and the next Push
  // wakes the thread.
  bool Take(Messages& taken);
  void Finish(Messages& taken, Messages::iterator message);
  // Does the same, and the value of a state is not sent again.
  void GiveUp(Messages& taken, Messages::iterator message);
  // They will be taken again before all others.
  void TakeBack(Messages& taken);
  // Pushes the current value of each state that has nothing pending.
  void RepeatStates();
  std::size_t pending();
  // Drops everything, now and later.
  void End();

 private:
  void Append(Outgoing message) ZORVIX_REQUIRES(mutex_);
  void Erase(Messages& messages, Messages::iterator message) ZORVIX_REQUIRES(mutex_);

  const std::function<void()> wake_;
  std::mutex mutex_;
  Messages messages_ ZORVIX_GUARDED_BY(mutex_);  // that have not been taken, or taken back
  std::unordered_set<StreamPointer> states_ ZORVIX_GUARDED_BY(mutex_);
  std::size_t pending_ ZORVIX_GUARDED_BY(mutex_) = 0;  // also those that have been taken
  bool wakes_ ZORVIX_GUARDED_BY(mutex_) = false;
  bool has_ended_ ZORVIX_GUARDED_BY(mutex_) = false;
};

}  // namespace zorvix::mqtt

#endif  // ZORVIX_MQTT_EXPORT_H_
