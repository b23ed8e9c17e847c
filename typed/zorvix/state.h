// States: values under a name of which everybody has the newest, whoever comes first.
//
//   const zorvix::State<Summary> kSummary{"summary"};  // in a header that modules share
//   zorvix::Holder summary(kSummary);                  // one for each name at a time
//   summary.Set({20, 0.5});
//   zorvix::Watcher show(kSummary, [](const Summary& newest) { ... });  // runs now for {20, 0.5}
//
// A watcher built after Set has returned has that value or a newer one when its constructor
// returns; one that comes before the holder has what is set later. Setting an equal value again is
// news, too. A watcher keeps what it has when the holder goes; later ones have nothing until there
// is another, whose values are newer. One that finds no holder logs a WARN that nobody answers.
//
// Values are shared by all, not copied, and destroyed by the code of the module that set them: it
// must not be unloaded while anybody has one.
#ifndef ZORVIX_STATE_H_
#define ZORVIX_STATE_H_

#include <zorvix/typed.h>

namespace zorvix {

template <typename Value>
struct State {
  ZORVIX_HIDDEN ~State() = default;
  std::string name;
};

namespace detail ZORVIX_HIDDEN {

template <typename Value>
struct Version {
  std::uint64_t number = 0;  // 0: none yet
  std::shared_ptr<const Value> value = {};
};
struct Look {};

template <typename Value>
struct Held {
  explicit Held(const std::string& name)
      : watched({name}, [](auto&) {}),
        publisher({name}),
        server({name}, [this](auto&) { return Newest(); }) {}
  Version<Value> Newest() {
    const std::lock_guard lock(mutex);
    return newest;
  }
  // Keeps it before others hear of it, so that whoever asks later has it.
  void Set(std::shared_ptr<const Value> value) {
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    Version<Value> version{static_cast<std::uint64_t>(now), std::move(value)}, old;
    {
      const std::lock_guard lock(mutex);
      version.number = std::max(version.number, newest.number + 1);
      old = std::exchange(newest, version);
    }
    publisher.Publish(std::move(version));
  }
  std::mutex mutex;
  Version<Value> newest ZORVIX_GUARDED_BY(mutex);
  const Subscriber<Version<Value>> watched;  // so that nobody is warned that nobody watches
  const Publisher<Version<Value>> publisher;
  const Server<Look, Version<Value>> server;
};

// What a watcher has seen.
template <typename Value>
struct Seen {
  // Returns whether it is news. What it was before goes when the lock has gone.
  bool Take(Version<Value> version) {
    const std::lock_guard lock(mutex);
    if (version.number <= newest.number) return false;
    std::swap(newest, version);
    changed.notify_all();
    return true;
  }
  Version<Value> Newest() {
    const std::lock_guard lock(mutex);
    return newest;
  }
  void Show(std::uint64_t number) {
    const std::lock_guard lock(mutex);
    shown = number;
    changed.notify_all();
  }
  void AwaitShown(std::uint64_t number) {
    const std::lock_guard lock(mutex);
    while (shown < number) changed.wait(mutex);
  }
  std::shared_ptr<const Value> WaitFor(std::chrono::milliseconds at_most) {
    const auto end = Deadline(at_most);
    const std::lock_guard lock(mutex);
    while (!newest.value && changed.wait_until(mutex, end) != std::cv_status::timeout) {
    }
    return newest.value;
  }
  std::mutex mutex;
  std::condition_variable_any changed;
  Version<Value> newest ZORVIX_GUARDED_BY(mutex);
  std::uint64_t shown ZORVIX_GUARDED_BY(mutex) = 0;  // to the callable
};

// Runs what waits at once, unless another thread is about it; that one runs it then.
struct Here final : Room {
  void Settle(bool drained) override {
    while (!drained && ready) Drain();
  }
};

template <typename Value>
struct Watching {
  explicit Watching(const std::string& name) : client({name}) {
    Watch(name, [seen = seen](const Version<Value>& version) { seen->Take(version); });
  }

  // The callable runs in a drain, one at a time, with what is newest then: so an older value,
  // however late its thread is, never comes behind a newer one.
  template <typename Callable>
  Watching(const std::string& name, Callable callable, std::shared_ptr<Room> inbox)
      : client({name}) {
    auto show = [seen = seen, callable = std::move(callable),
                 last = std::uint64_t{0}](const Look&) mutable {
      const auto version = seen->Newest();
      if (std::exchange(last, version.number) == version.number) return;
      const auto shown = [&](void*) { seen->Show(version.number); };
      const std::unique_ptr<void, decltype(shown)> at_the_end(seen.get(), shown);
      static_cast<void>(std::invoke(callable, *version.value));
    };
    const bool here = !inbox;
    if (here) inbox = std::make_shared<Here>();
    lodging.emplace(inbox, MakeLine<Look>(name, std::move(show), KeepLast{1}));
    const auto number =
        Watch(name, [seen = seen, inbox, line = lodging->line](const Version<Value>& version) {
          if (seen->Take(version)) inbox->Push(line, Pack(Look()));
        });
    if (here) seen->AwaitShown(number);
  }

  // Registers first and asks then, or what is set between would be missed. Returns the number.
  template <typename Take>
  std::uint64_t Watch(const std::string& name, const Take& take) {
    subscriber.emplace(Topic<Version<Value>>{name}, take);
    const auto version = client.Call({}).value_or(Version<Value>());
    take(version);
    return version.number;
  }

  const Client<Look, Version<Value>> client;
  const std::shared_ptr<Seen<Value>> seen = std::make_shared<Seen<Value>>();
  std::optional<Lodging> lodging;
  std::optional<Subscriber<Version<Value>>> subscriber;  // goes first: nothing is pushed any more
};

}  // namespace detail

template <typename Value>
class Holder {
 public:
  [[nodiscard]] ZORVIX_HIDDEN explicit Holder(const State<Value>& state)
      : held_(std::make_shared<detail::Held<Value>>(state.name)) {}
  ZORVIX_MOVE_ONLY(Holder);

  // Blocks while it runs callables of watchers at once. Any thread may call it.
  ZORVIX_HIDDEN void Set(Value value) {
    auto* const held = static_cast<detail::Held<Value>*>(held_.get());
    if (held) held->Set(std::make_shared<const Value>(std::move(value)));
  }

 private:
  std::shared_ptr<void> held_;
};

template <typename Value>
class Watcher {
 public:
  [[nodiscard]] ZORVIX_HIDDEN explicit Watcher(const State<Value>& state)
      : watching_(std::make_shared<detail::Watching<Value>>(state.name)) {}

  // Runs callable(const Value&) for each value, or a newer one, but none twice and none behind a
  // newer one, one at a time: at once, on the thread that sets it, or on the one that still runs it
  // for an older one. That one goes on while newer ones come, so give what is slow an inbox. Set
  // may return before the callable has run for its value; the constructor waits until it has.
  template <typename Callable>
  [[nodiscard]] ZORVIX_INLINED Watcher(const State<Value>& state, Callable callable)
      : watching_(
            std::make_shared<detail::Watching<Value>>(state.name, std::move(callable), nullptr)) {}
  // In a drain of the inbox.
  template <typename Callable>
  [[nodiscard]] ZORVIX_INLINED Watcher(const State<Value>& state, Callable callable, Inbox& inbox)
      : watching_(std::make_shared<detail::Watching<Value>>(
            state.name, std::move(callable), std::static_pointer_cast<detail::Box>(inbox.box_))) {}
  // Afterwards the callable runs nowhere, as for a Subscriber.
  ZORVIX_MOVE_ONLY(Watcher);

  // Returns empty when there is none yet.
  ZORVIX_HIDDEN std::shared_ptr<const Value> Newest() const {
    return watching_ ? seen().Newest().value : nullptr;
  }

  // Blocks until there is one, or for that long; negative: without limit. As Newest.
  ZORVIX_HIDDEN std::shared_ptr<const Value> WaitFor(std::chrono::milliseconds at_most) const {
    return watching_ ? seen().WaitFor(at_most) : nullptr;
  }

 private:
  ZORVIX_HIDDEN detail::Seen<Value>& seen() const {
    return *static_cast<detail::Watching<Value>*>(watching_.get())->seen;
  }
  std::shared_ptr<void> watching_;
};

}  // namespace zorvix

#endif  // ZORVIX_STATE_H_
