// The exports of a connection: a bounded queue for each, which any thread fills and the
// connection's thread empties.
#ifndef ZORVIX_MQTT_EXPORT_H_
#define ZORVIX_MQTT_EXPORT_H_

#include <zorvix/mqtt.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>

#include "rejected.h"

namespace zorvix::mqtt {

using Text = std::shared_ptr<const std::string>;

namespace detail {

// An export. What is not const is guarded by the mutex of its Outbox.
struct Stream {
  struct Queued {
    std::uint64_t turn;
    Text text;
    bool is_pending;  // not a value that the broker has acknowledged on an earlier connection
  };
  Stream(const std::string& its_name, std::string its_topic, Kind its_kind, std::size_t its_depth)
      : name(its_name),
        topic(std::move(its_topic)),
        kind(its_kind),
        depth(its_depth),
        rejected("export", its_name) {}

  const std::string name;
  const std::string topic;
  const Kind kind;
  const std::size_t depth;
  Rejected rejected;  // guards itself
  std::deque<Queued> queue;
  Text value;                  // the latest of a state, which is sent on each connect
  std::size_t pending = 0;     // in the queue, or sent and not acknowledged
  std::size_t unfinished = 0;  // taken and not finished
  std::size_t dropped = 0;
};

}  // namespace detail

using StreamPointer = std::shared_ptr<detail::Stream>;

// A message that has been taken out of its queue.
struct Outgoing {
  StreamPointer stream;
  Text text;
  bool is_pending;
  bool was_sent;     // on an earlier link
  int number = 0;    // in the present link, or 0
  int hang_ups = 0;  // connections that the broker ended while this message was not acknowledged
};

// A message is taken in the order in which it was pushed, whichever export it is from. A queue that
// drops its oldest message passes the turn of that message on to the next one.
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
  zorvix::detail::Counts Count(const detail::Stream& stream);

  // For the connection's thread:
  // Returns nothing if all queues are empty. Then the next Push wakes the thread.
  std::optional<Outgoing> Take();
  void Finish(const Outgoing& message);
  // Queues the current value of each state that has nothing else to send.
  void RepeatStates();
  std::size_t pending();
  // Drops everything, now and later.
  void End();

 private:
  void Enqueue(const StreamPointer& stream, Text text, bool is_pending) ZORVIX_REQUIRES(mutex_);
  void Drop(detail::Stream& stream) ZORVIX_REQUIRES(mutex_);

  const std::function<void()> wake_;
  std::mutex mutex_;
  // By the turn of the oldest message.
  std::map<std::uint64_t, StreamPointer> ready_ ZORVIX_GUARDED_BY(mutex_);
  std::unordered_set<StreamPointer> states_ ZORVIX_GUARDED_BY(mutex_);
  std::uint64_t last_turn_ ZORVIX_GUARDED_BY(mutex_) = 0;
  std::size_t pending_ ZORVIX_GUARDED_BY(mutex_) = 0;  // of all streams
  bool wakes_ ZORVIX_GUARDED_BY(mutex_) = false;
  bool has_ended_ ZORVIX_GUARDED_BY(mutex_) = false;
};

}  // namespace zorvix::mqtt

#endif  // ZORVIX_MQTT_EXPORT_H_
