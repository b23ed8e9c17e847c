// Where messages wait for callables that run one at a time. Not for users: inboxes, queued
// subscribers and watchers are made of it.
#ifndef ZORVIX_ROOM_H_
#define ZORVIX_ROOM_H_

#include <sys/eventfd.h>
#include <unistd.h>
#include <zorvix/gate.h>

#include <cerrno>
#include <list>
#include <stdexcept>
#include <system_error>

namespace zorvix {

// How many messages of one subscriber wait; 0 throws std::invalid_argument. Past that it loses its
// own oldest, with a WARN when that begins and an INFO with their number when it has caught up. Of
// 1, the newest only, neither is logged.
struct KeepLast {
  std::size_t depth = 100;
};

namespace detail ZORVIX_HIDDEN {

// A callable's gate, and the function that checks what comes and passes the gate.
struct Receiver {
  std::shared_ptr<Gate> gate;
  std::function<void(const std::any&)> function;
};

template <typename Message, typename Callable>
Receiver Receive(const std::string& name, Callable callable) {
  const auto gated = std::make_shared<Gated<Callable>>(name, std::move(callable));
  return {gated, [gated](const std::any& any) {
            if (!any.has_value()) return;  // what further subscribers of a queued topic get
            (*gated)(std::any_cast<const Message&>(any));
          }};
}

// A message on the heap, so that handing it on runs none of its code.
using Parcel = std::unique_ptr<const void, void (*)(const void*)>;

template <typename Value>
Parcel Pack(Value&& value) {
  using Message = std::decay_t<Value>;
  return {new Message(std::forward<Value>(value)),
          [](const void* it) { delete static_cast<const Message*>(it); }};
}

struct Line;
struct Item {
  std::shared_ptr<Line> line = nullptr;
  Parcel message = {nullptr, nullptr};
  std::uint64_t number = 0;
  std::size_t missed = 0;  // by the line before, if it has caught up
};
using Items = std::list<Item>;

// What one receiver has waiting in a room, whose lock guards the last two.
struct Line {
  std::shared_ptr<Gate> gate;
  std::function<void(const void*)> run;
  std::size_t keep;
  std::deque<Items::iterator> items = {};
  std::size_t lost = 0;  // since it last caught up
};

template <typename Message, typename Callable>
std::shared_ptr<Line> MakeLine(const std::string& name, Callable callable, KeepLast keep) {
  if (keep.depth == 0) throw std::invalid_argument("a subscriber must keep one message at least");
  const auto gated = std::make_shared<Gated<Callable>>(name, std::move(callable));
  return std::make_shared<Line>(Line{
      gated, [gated](const void* it) { (*gated)(*static_cast<const Message*>(it)); }, keep.depth});
}

// Where items wait that are drained together, in the order in which they came.
class Room {
 public:
  virtual ~Room() = default;

  void Push(const std::shared_ptr<Line>& line, Parcel message) {
    Parcel lost{nullptr, nullptr};  // goes after the lock, as does `message`
    bool losing = false;
    {
      const std::lock_guard lock(mutex);
      if (!open_) return;
      const bool full = line->items.size() == line->keep;
      if (!full && spare_.empty()) spare_.emplace_back();
      const auto item = full ? line->items.front() : spare_.begin();
      line->items.push_back(item);
      if (full) {
        line->items.pop_front();
        lost = std::move(item->message);
        losing = line->keep > 1 && line->lost++ == 0;
      }
      item->line = line;
      item->message = std::move(message);
      item->number = next_++;
      items_.splice(items_.end(), full ? items_ : spare_, item);
      Tell();
    }
    if (losing) {
      BRIDGE_LOG(bridge::kLogWarn, "a subscriber loses its oldest messages, name: %s, kept: %zu",
                 line->gate->name.c_str(), line->keep);
    }
    Settle(false);
  }

  std::size_t Drain() {
    Items taken;
    std::uint64_t end = 0;
    std::size_t count = 0;
    try {
      for (; Next(taken, end); ++count) Run(taken.front());
    } catch (...) {
      Abandon();
      throw;
    }
    if (end != 0) Settle(true);
    return count;
  }

  // Discards what waits in the line, into which nothing is pushed any more, and closes its gate.
  void Close(Line& line) {
    {
      Items discarded;
      const std::lock_guard lock(mutex);
      for (const auto item : line.items) discarded.splice(discarded.end(), items_, item);
      line.items.clear();
      Tell();
    }
    line.gate->Close();
  }

  void Shut() {
    Items discarded;
    const std::lock_guard lock(mutex);
    open_ = false;
    discarded.swap(items_);
    for (const auto& item : discarded) item.line->items.clear();
    if (fd_ >= 0) close(std::exchange(fd_, -1));
  }

  // Blocks until something waits and nobody drains, or `stop`, or then. Returns whether it does.
  bool Wait(std::chrono::steady_clock::time_point end, const std::atomic<bool>& stop) {
    std::unique_lock lock(mutex);
    changed.wait_until(lock, end, [&] { return ready || stop; });
    return ready;
  }

  int fd() {
    const std::lock_guard lock(mutex);
    if (fd_ < 0) fd_ = eventfd(ready, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    return fd_;
  }

  std::mutex mutex;
  std::condition_variable changed;  // ready
  std::atomic<bool> ready{false};   // something waits and nobody drains; written under the lock

 private:
  // After each push and each drain, under no lock.
  virtual void Settle(bool /*drained*/) {}

  // Begins a drain of all that has a number below what becomes `end`, goes on with it, or ends it
  // and returns false: one lock for each item, and one more.
  bool Next(Items& taken, std::uint64_t& end) {
    const std::lock_guard lock(mutex);
    if (end == 0) {
      if (draining_) return false;
      end = next_;
    }
    spare_.size() < kSpare ? spare_.splice(spare_.end(), taken) : taken.clear();
    draining_ = !items_.empty() && items_.front().number < end;
    Tell();
    if (!draining_) return false;
    taken.splice(taken.end(), items_, items_.begin());
    auto& line = *taken.front().line;
    line.items.pop_front();
    taken.front().missed = line.items.empty() ? std::exchange(line.lost, 0) : 0;
    return true;
  }

  void Abandon() {
    const std::lock_guard lock(mutex);
    draining_ = false;
    Tell();
  }

  static void Run(Item& item) {
    const char* const name = item.line->gate->name.c_str();
    if (item.missed != 0) {
      BRIDGE_LOG(bridge::kLogInfo, "a subscriber has caught up, name: %s, lost: %zu", name,
                 item.missed);
    }
    try {
      item.line->run(item.message.get());
    } catch (const std::exception& error) {
      BRIDGE_LOG(bridge::kLogError, "callable failed! error: %s, name: %s", error.what(), name);
    }
    item.message.reset();  // under no lock, under which the item is spared
    item.line.reset();
  }

  void Tell() ZORVIX_REQUIRES(mutex) {
    const bool now = !items_.empty() && !draining_;
    if (ready == now) return;
    ready = now;
    if (now) changed.notify_all();
    eventfd_t count = 1;
    if (fd_ >= 0) now ? eventfd_write(fd_, count) : eventfd_read(fd_, &count);
  }

  static constexpr std::size_t kSpare = 100;
  Items items_ ZORVIX_GUARDED_BY(mutex);
  Items spare_ ZORVIX_GUARDED_BY(mutex);  // empty ones, since a burst outruns the heap's caches
  std::uint64_t next_ ZORVIX_GUARDED_BY(mutex) = 1;
  bool draining_ ZORVIX_GUARDED_BY(mutex) = false;
  bool open_ ZORVIX_GUARDED_BY(mutex) = true;
  int fd_ ZORVIX_GUARDED_BY(mutex) = -1;
};

// A line that is closed with it.
struct Lodging {
  Lodging(std::shared_ptr<Room> in, std::shared_ptr<Line> its)
      : room(std::move(in)), line(std::move(its)) {}
  Lodging(const Lodging&) = delete;
  ~Lodging() { room->Close(*line); }
  const std::shared_ptr<Room> room;
  const std::shared_ptr<Line> line;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_ROOM_H_
