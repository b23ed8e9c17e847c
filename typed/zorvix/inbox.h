// Inboxes: places of one's own in which messages wait until a thread that the owner chooses drains
// them. They never touch the bridge's queue.
//
//   zorvix::Inbox inbox;
//   zorvix::Subscriber show(kSamples, [](const Sample& sample) { ... }, inbox, zorvix::Keep{1});
//   inbox.Drain();  // once a frame, or when inbox.fd() is readable
//
// Callables run inside Drain and nowhere else, one at a time whoever drains, in the order in which
// what they get came to the inbox. One that throws a std::exception is logged and contained;
// anything else it throws leaves Drain, and what waits goes on waiting.
#ifndef ZORVIX_INBOX_H_
#define ZORVIX_INBOX_H_

#include <sys/eventfd.h>
#include <unistd.h>
#include <zorvix/gate.h>

#include <cerrno>
#include <cstdlib>
#include <list>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace zorvix {

// How many messages of one subscriber wait; 0 throws std::invalid_argument. Past that it loses its
// own oldest, with a WARN when that begins and an INFO with their number when it has caught up. Of
// 1, the newest only, neither is logged.
struct Keep {
  std::size_t last = 100;
};

namespace detail ZORVIX_HIDDEN {

// A callable's gate, and the function that checks what it gets and passes the gate.
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

struct Line;
struct Item {
  std::shared_ptr<Line> line;
  std::any message;
  std::uint64_t number = 0;
  std::size_t missed = 0;  // by its line before, if its line has caught up with it
};
using Items = std::list<Item>;

// What one receiver has waiting in a room, whose lock guards all that is not constant.
struct Line {
  const Receiver receiver;
  const std::size_t keep;
  std::deque<Items::iterator> items = {};
  std::size_t lost = 0;  // since it last caught up
  bool closed = false;
};

// Where items wait that are drained together, in the order in which they came.
class Room {
 public:
  void Push(const std::shared_ptr<Line>& line, std::any message) {
    Items fresh, lost;  // made before and destroyed after the lock
    fresh.push_back({line, std::move(message)});
    {
      const std::lock_guard lock(mutex);
      if (!open_ || line->closed) return;
      line->items.push_back(fresh.begin());
      if (line->items.size() > line->keep) {
        lost.splice(lost.end(), items_, line->items.front());
        line->items.pop_front();
      }
      fresh.front().number = next_++;
      items_.splice(items_.end(), fresh);
      Tell();
      if (lost.empty() || line->keep == 1 || line->lost++ > 0) return;
    }
    BRIDGE_LOG(bridge::kLogWarn, "a subscriber loses its oldest messages, name: %s, kept: %zu",
               line->receiver.gate->name.c_str(), line->keep);
  }

  std::size_t Drain() {
    std::uint64_t end = 0;
    {
      const std::lock_guard lock(mutex);
      if (draining_) return 0;
      draining_ = true;
      end = next_;
      Tell();
    }
    struct Finish {
      ~Finish() {
        const std::lock_guard lock(room.mutex);
        room.draining_ = false;
        room.Tell();
      }
      Room& room;
    } const finish{*this};
    std::size_t count = 0;
    while (RunBefore(end)) ++count;
    return count;
  }

  // Discards what waits in the line, lets nothing into it any more and closes its gate.
  void Close(Line& line) {
    Items discarded;
    {
      const std::lock_guard lock(mutex);
      line.closed = true;
      for (const auto item : line.items) discarded.splice(discarded.end(), items_, item);
      line.items.clear();
      Tell();
    }
    line.receiver.gate->Close();
  }

  void Shut() {
    Items discarded;
    const std::lock_guard lock(mutex);
    open_ = false;
    discarded.swap(items_);
    for (const auto& item : discarded) item.line->items.clear();
    if (fd_ >= 0) close(std::exchange(fd_, -1));
  }

  // Whether anything waits and no drain is under way, at the end of which somebody looks again.
  bool ready() const { return ready_; }

  // Blocks until it is ready, or `stop`, or then. Returns whether it is ready.
  bool Wait(std::chrono::steady_clock::time_point end, const std::atomic<bool>& stop) {
    std::unique_lock lock(mutex);
    changed.wait_until(lock, end, [&] { return ready_ || stop; });
    return ready_;
  }

  int fd() {
    const std::lock_guard lock(mutex);
    if (fd_ < 0) fd_ = eventfd(ready_, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    return fd_;
  }

  std::mutex mutex;
  std::condition_variable changed;  // ready

 private:
  // Returns whether there was anything with a lower number. Runs it outside the lock.
  bool RunBefore(std::uint64_t end) {
    Items taken;
    {
      const std::lock_guard lock(mutex);
      if (items_.empty() || items_.front().number >= end) return false;
      taken.splice(taken.end(), items_, items_.begin());
      auto& line = *taken.front().line;
      line.items.pop_front();
      if (line.items.empty()) taken.front().missed = std::exchange(line.lost, 0);
    }
    const auto& [line, message, number, missed] = taken.front();
    const char* const name = line->receiver.gate->name.c_str();
    if (missed != 0) {
      BRIDGE_LOG(bridge::kLogInfo, "a subscriber has caught up, name: %s, lost: %zu", name, missed);
    }
    try {
      line->receiver.function(message);
    } catch (const std::exception& error) {
      BRIDGE_LOG(bridge::kLogError, "callable failed! error: %s, name: %s", error.what(), name);
    }
    return true;
  }

  void Tell() ZORVIX_REQUIRES(mutex) {
    const bool ready = !items_.empty() && !draining_;
    if (ready_ == ready) return;
    ready_ = ready;
    if (ready) changed.notify_all();
    eventfd_t count = 1;
    if (fd_ >= 0) ready ? eventfd_write(fd_, count) : eventfd_read(fd_, &count);
  }

  Items items_ ZORVIX_GUARDED_BY(mutex);
  std::uint64_t next_ ZORVIX_GUARDED_BY(mutex) = 0;
  bool draining_ ZORVIX_GUARDED_BY(mutex) = false;
  bool open_ ZORVIX_GUARDED_BY(mutex) = true;
  int fd_ ZORVIX_GUARDED_BY(mutex) = -1;
  std::atomic<bool> ready_{false};  // written under the lock
};

// A line in a room.
struct Lodging {
  Lodging(std::shared_ptr<Room> in, Receiver receiver, Keep keep)
      : room(std::move(in)), line(std::make_shared<Line>(Line{std::move(receiver), keep.last})) {
    if (keep.last == 0) throw std::invalid_argument("a subscriber must keep one message at least");
  }
  ~Lodging() { room->Close(*line); }
  Lodging(const Lodging&) = delete;
  const std::shared_ptr<Room> room;
  const std::shared_ptr<Line> line;
};

using PostedTask = std::function<void()>;
struct RunTask {
  void operator()(const PostedTask& task) const { task(); }
};

// What an inbox shares with its subscribers.
struct Box : Room {
  const std::shared_ptr<Line> tasks = std::make_shared<Line>(
      Line{Receive<PostedTask>("task of an inbox", RunTask()), ~std::size_t{0}});
};

}  // namespace ZORVIX_HIDDEN

// Owns no thread. Any thread may call it at any time, but none may be inside when it goes, unless
// it goes in its own drain. It may go before its subscribers: they drop what comes then. Memory is
// bounded by what they keep. Another module's subscribers must go before their module does.
class Inbox {
 public:
  ZORVIX_HIDDEN Inbox() : box_(std::make_shared<detail::Box>()) {}
  ZORVIX_HIDDEN ~Inbox() { box().Shut(); }
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;

  // Runs what waited when it began, on this thread, and returns how many that were. What comes
  // meanwhile is the next one's. A second drain at a time, or a nested one, returns 0 at once.
  ZORVIX_HIDDEN std::size_t Drain() {
    const auto outlives_this = box_;
    return box().Drain();
  }

  // Blocks until something waits and nobody drains, or for that long; negative: without limit.
  // Returns whether something waits.
  ZORVIX_HIDDEN bool Wait(std::chrono::milliseconds at_most) const {
    return box().Wait(detail::Deadline(at_most), false);
  }

  // Returns a descriptor that is readable while something waits and nobody drains: for poll, epoll
  // or ALooper_addFd, not to be read or closed. The first call makes it; without, nothing costs a
  // system call. Throws std::system_error when there is none to be had.
  ZORVIX_HIDDEN int fd() const { return box().fd(); }

  // Has `task` run in a drain, after what waits already. Tasks are not lost, however many wait.
  ZORVIX_HIDDEN void Post(std::function<void()> task) { box().Push(box().tasks, std::move(task)); }

 private:
  friend class InboxThread;
  template <typename Message, bridge::BridgeType kType>
  friend class Subscriber;
  template <typename Value>
  friend class Watcher;
  ZORVIX_HIDDEN detail::Box& box() const { return *static_cast<detail::Box*>(box_.get()); }

  const std::shared_ptr<void> box_;
};

// Drains an inbox, which must outlive it, on a thread of its own. Nobody else should drain that.
class [[nodiscard]] InboxThread {
 public:
  ZORVIX_HIDDEN explicit InboxThread(Inbox& inbox) : inbox_(inbox), thread_([this] { Run(); }) {}
  // Runs what waits, then joins. On its own thread it ends the process, with an ERROR.
  ZORVIX_HIDDEN ~InboxThread() {
    if (thread_.get_id() == std::this_thread::get_id()) {
      BRIDGE_LOG(bridge::kLogError, "an InboxThread is destroyed by what it runs");
      std::abort();
    }
    {
      const std::lock_guard lock(inbox_.box().mutex);
      stop_ = true;
    }
    inbox_.box().changed.notify_all();
    thread_.join();
  }
  InboxThread(const InboxThread&) = delete;
  InboxThread& operator=(const InboxThread&) = delete;

 private:
  ZORVIX_HIDDEN void Run() {
    while (!stop_) {
      inbox_.box().Wait(detail::Deadline(std::chrono::milliseconds(-1)), stop_);
      inbox_.Drain();
    }
    inbox_.Drain();  // what came behind the one before
  }

  Inbox& inbox_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace zorvix

#endif  // ZORVIX_INBOX_H_
