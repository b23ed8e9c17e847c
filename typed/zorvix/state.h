// States: named values of which every watcher has the latest, also a watcher that is built late.
//
//   const zorvix::State<Summary> kSummary{"summary"};  // in a header that modules share
//   zorvix::Holder summary(kSummary);                  // one for each state at a time
//   summary.Set({20, 0.5});
//   zorvix::Watcher show(kSummary, [](const Summary& latest) { ... });  // invoked now
//
// A watcher that is built after Set has returned has that value or a later one when its constructor
// returns. A watcher that is built before there is a holder has the values that are set later; the
// bridge logs the WARN "Call failed, no server". When the holder is destroyed, watchers keep the
// latest value; watchers that are built afterwards have none until another holder sets one. Setting
// an equal value again is a new value.
//
// Values are shared by all watchers, not copied, and are destroyed by code of the module that set
// them: do not unload it while a watcher has one. Names of states do not match those of topics and
// services.
#ifndef ZORVIX_STATE_H_
#define ZORVIX_STATE_H_

#include <zorvix/detail/watch.h>
#include <zorvix/typed.h>

namespace zorvix {

template <typename Value>
struct State {
  ZORVIX_HIDDEN ~State() = default;
  std::string name;
};

// Sets the value of a state. If there are several, watchers that are built later get the value of
// the newest holder; the bridge logs a WARN when it is built.
template <typename Value>
class Holder {
 public:
  [[nodiscard]] ZORVIX_HIDDEN explicit Holder(const State<Value>& state)
      : state_(std::make_shared<detail::HolderState>(state.name, typeid(Value))) {}
  ZORVIX_MOVE_ONLY(Holder);

  // Blocks while watchers without an inbox are invoked. Any thread may call it. If it throws
  // std::bad_alloc, the value is not set. If a watcher without an inbox throws what is no
  // std::exception, it leaves Set: the value is set, but other watchers may not have it.
  ZORVIX_HIDDEN void Set(Value value) {
    auto* const holder = static_cast<detail::HolderState*>(state_.get());
    if (holder != nullptr) holder->Set(std::make_shared<const Value>(std::move(value)));
  }

 private:
  std::shared_ptr<void> state_;
};

// Gives access to the latest value of a state.
template <typename Value>
class Watcher {
 public:
  [[nodiscard]] ZORVIX_HIDDEN explicit Watcher(const State<Value>& state)
      : Watcher(detail::MakeWatcher<Value>(state.name, std::make_shared<detail::DirectMailbox>(),
                                           nullptr)) {}

  // Invokes callable(const Value&) for the latest value and for each later one, one at a time: on
  // the thread that sets the value, or on a thread that is still inside the callable. Values in
  // between may be skipped, the last one never; none is passed twice, or after a later one. When
  // the constructor has returned, the callable has been invoked, or is being invoked on another
  // thread, for the value that was set by then. Give slow callables an inbox: a thread that is
  // inside the callable stays there while other threads set values.
  template <typename Callable>
  [[nodiscard]] ZORVIX_INLINED Watcher(const State<Value>& state, Callable callable)
      : Watcher(detail::MakeWatcher<Value>(state.name, std::make_shared<detail::DirectMailbox>(),
                                           std::move(callable))) {
    detail::CheckCallable<Callable, const Value&>();
  }
  // Invokes the callable in drains of the inbox.
  template <typename Callable>
  [[nodiscard]] ZORVIX_INLINED Watcher(const State<Value>& state, Callable callable, Inbox& inbox)
      : Watcher(
            detail::MakeWatcher<Value>(state.name, inbox.state().mailbox, std::move(callable))) {
    detail::CheckCallable<Callable, const Value&>();
  }

  template <typename Other, typename... More, detail::IfOther<Other, State<Value>> = 0>
  [[nodiscard]] ZORVIX_INLINED explicit Watcher(const Other&, const More&...) {
    static_assert(std::is_same_v<Other, State<Value>>, "a watcher needs a State of its own type");
  }
  // The destructor waits for the callable as that of a Subscriber does.
  ZORVIX_MOVE_ONLY(Watcher);

  // Returns the latest value, or null if there is none yet.
  ZORVIX_HIDDEN std::shared_ptr<const Value> Newest() const {
    if (watch_ == nullptr) return nullptr;
    return std::static_pointer_cast<const Value>(queue().Latest());
  }

  // Blocks until there is a value, and returns the latest one. Returns null after that time; a
  // negative limit means without limit. Another thread must set the value.
  ZORVIX_HIDDEN std::shared_ptr<const Value> WaitFor(std::chrono::milliseconds limit) const {
    if (watch_ == nullptr) return nullptr;
    return std::static_pointer_cast<const Value>(queue().WaitFor(detail::Deadline(limit)));
  }

 private:
  ZORVIX_HIDDEN explicit Watcher(std::shared_ptr<void> watch) : watch_(std::move(watch)) {}
  ZORVIX_HIDDEN detail::WatchQueue& queue() const {
    return static_cast<detail::Watch*>(watch_.get())->queue();
  }
  std::shared_ptr<void> watch_;
};

}  // namespace zorvix

#endif  // ZORVIX_STATE_H_
