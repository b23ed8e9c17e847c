// States: named values of which every watcher has the latest, even a watcher that is constructed
// late, as long as there is a holder (a retained topic with conflation).
//
//   #include <zorvix/state.h>
//
//   inline constexpr zorvix::State<float> kVolume{"volume"};
//
//   int main() {
//     zorvix::Holder volume(kVolume);
//     volume.Set(0.5f);
//     float shown = 0;
//     const zorvix::Watcher show(kVolume, [&](float latest) { shown = latest; });  // invoked now
//     const auto latest = zorvix::Watcher(kVolume).Latest();
//     return latest != nullptr && *latest == shown ? 0 : 1;
//   }
//
// Holder: Set. Watcher: Latest, WaitForValue.
//
// A watcher that is constructed after the only holder's Set has returned has that value or a later
// one when its constructor returns. A watcher that is constructed before there is a holder has the
// values that are set later. When the holder is destroyed, watchers keep the latest value; watchers
// that are constructed afterwards have no value until another holder sets one. Setting an equal
// value again is a new value.
//
// Values are shared by all watchers, not copied; their type need not be copyable. A watcher of
// another type ignores them, which is logged. As long as others have values of a holder whose type
// is not trivially destructible, the holder's module stays loaded, even after dlclose. Names of
// states do not match those of topics and services.
#ifndef ZORVIX_STATE_H_
#define ZORVIX_STATE_H_

#include <zorvix/delivery.h>
#include <zorvix/detail/library.h>
#include <zorvix/detail/mistakes.h>
#include <zorvix/name.h>
#include <zorvix/timeout.h>

#include <memory>
#include <typeinfo>
#include <utility>

namespace zorvix {

// A name and a type of values, in a header that modules share.
template <typename Value>
struct State {
  EndpointName name;
};

// Sets the value of a state. If there are several holders, watchers get what any of them sets, and
// watchers that are constructed later begin with the value of the latest holder that still exists,
// if it has set one. A WARN is logged when that holder is constructed.
template <typename Value>
class [[nodiscard]] Holder {
 public:
  [[nodiscard]] explicit Holder(const State<Value>& state)
      : state_(detail::MakeHolder({state.name}, typeid(Value))) {}

  // Sets the value, invokes direct watchers, and blocks meanwhile, but does not wait for those that
  // other threads are invoking. Any thread may call it, also in a callable, and even in that of a
  // watcher of this state, which is then invoked again when it has returned. If several threads set
  // values at the same time, all watchers end with the same one.
  //
  // If it throws std::bad_alloc, or what moving the value throws, the value is not set. If a direct
  // watcher throws an exception that is no std::exception, it leaves Set: the value is set, but
  // other watchers may not have it.
  void Set(Value value) {
    if (state_ == nullptr) return;
    detail::Set(*state_, ::new Value(std::move(value)), detail::kDestroyValue<Value>);
  }

  // Other arguments: a compile error that says what is wrong.
  template <typename Given, typename... More,
            detail::IfMistaken<detail::Takes::kNothing, State<Value>, Given, More...> = 0>
  explicit Holder(Given&&, More&&...) {
    detail::Explain<detail::Takes::kNothing, State<Value>, Given, More...>();
  }

 private:
  detail::Owned<detail::HolderState> state_;
};
Holder(...)->Holder<detail::Unknown>;  // for that constructor

// Gives access to the latest value of a state. Any thread may use it.
template <typename Value>
class [[nodiscard]] Watcher {
 public:
  // Without a callable.
  [[nodiscard]] explicit Watcher(const State<Value>& state)
      : state_(detail::MakeWatcher({state.name}, typeid(Value), {}, {})) {}

  // Invokes callable(const Value&) for the latest value and for each later one, one at a time.
  // Values in between may be skipped, the last one never. No value is passed twice, or after a
  // later one.
  //
  // With Delivery::Direct, the default, on the thread that sets the value. If another thread is
  // inside the callable then, Set returns, and that thread invokes the callable again with the
  // latest value. A value that exists already is passed in the constructor, on this thread, unless
  // another thread is passing it: what it throws there that is no std::exception leaves the
  // constructor. With Delivery::Queued, where the bridge's queue is drained.
  template <typename Callable, detail::IfCallable<Callable> = 0>
  [[nodiscard]] Watcher(const State<Value>& state, Callable callable,
                        Delivery delivery = Delivery::Direct)
      : state_(Make(state, callable, {delivery})) {}

  // Does the same in drains of `inbox`.
  template <typename Callable, detail::IfCallable<Callable> = 0>
  [[nodiscard]] Watcher(const State<Value>& state, Callable callable, Inbox& inbox)
      : state_(Make(state, callable, {Delivery::Queued, &inbox})) {}

  // Returns the latest value, or null if there is no value yet. Does not block.
  std::shared_ptr<const Value> Latest() const {
    if (state_ == nullptr) return nullptr;
    return std::static_pointer_cast<const Value>(detail::Latest(*state_));
  }

  // Blocks until there is a value, and returns the latest one. Returns null after `timeout`, which
  // is forever by default, if there is no value yet. Logs a WARN after 1, 10 and 100 seconds.
  // REQUIRES: another thread sets the value.
  std::shared_ptr<const Value> WaitForValue(Timeout timeout = Timeout::Forever()) const {
    if (state_ == nullptr) return nullptr;
    return std::static_pointer_cast<const Value>(detail::WaitForValue(*state_, timeout));
  }

  // Other arguments: a compile error that says what is wrong.
  template <typename Given, typename... More,
            detail::IfMistaken<detail::Takes::kCallableOrNothing, State<Value>, Given, More...> = 0>
  explicit Watcher(Given&&, More&&...) {
    detail::Explain<detail::Takes::kCallableOrNothing, State<Value>, Given, More...>();
  }

 private:
  template <typename Callable>
  static auto Make(const State<Value>& state, Callable& callable, const detail::Place& place) {
    return detail::MakeWatcher({state.name}, typeid(Value),
                               detail::Receive<Value>(std::move(callable)), place);
  }

  detail::Owned<detail::WatcherState> state_;
};
Watcher(...)->Watcher<detail::Unknown>;  // for that constructor

}  // namespace zorvix

#endif  // ZORVIX_STATE_H_
