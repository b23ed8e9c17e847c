// What holders and watchers of states are made of. Not for users.
//
// A holder publishes each value on a topic, and answers watchers that are built later as a server.
// A watcher subscribes first and asks then, or it would miss a value that is set between.
#ifndef ZORVIX_DETAIL_WATCH_H_
#define ZORVIX_DETAIL_WATCH_H_

#include <zorvix/detail/handle.h>

#include <exception>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

// A value of a state, with a number that grows with each value.
struct Version {
  std::uint64_t number = 0;  // 0: no value
  std::shared_ptr<const void> value;
  const std::type_info* type = nullptr;
};

// Topic and service of a state have names of their own, so that a user's topic or service of the
// same name does not match them.
inline std::string StateName(const std::string& name) { return name + "/zorvix.state"; }

// The latest version of a holder. Answers that are in progress share it with the holder.
class HeldVersion {
 public:
  explicit HeldVersion(const std::type_info& type) : type_(type) {}
  const std::type_info& type() const { return type_; }

  // Numbers the version and stores it. Returns the version before.
  Version Store(Version& version) {
    const auto now = Clock::now().time_since_epoch().count();
    const std::lock_guard lock(mutex_);
    // Versions of a later holder have higher numbers.
    version.number = std::max(static_cast<std::uint64_t>(now), latest_.number + 1);
    return std::exchange(latest_, version);
  }

  // Undoes the store of a version, unless a later one has been stored meanwhile.
  void Restore(std::uint64_t number, Version previous) {
    const std::lock_guard lock(mutex_);
    if (latest_.number == number) std::swap(latest_, previous);
  }

  // The request is the type of the watcher's values. The response has the address of the watcher's
  // version, so that an answer needs no allocation, which might fail.
  void Answer(const std::any& request, const std::any& response) {
    const auto* const wanted = std::any_cast<const std::type_info*>(request);
    if (*wanted != type_) throw TypeMismatch("value", type_, "watcher", *wanted);
    Version latest;
    {
      const std::lock_guard lock(mutex_);
      latest = latest_;
    }
    *std::any_cast<Version*>(response) = std::move(latest);
  }

 private:
  const std::type_info& type_;
  std::mutex mutex_;
  Version latest_ ZORVIX_GUARDED_BY(mutex_);
};

class HolderState : public Record {
 public:
  HolderState(const std::string& its_name, const std::type_info& type)
      : Record("Holder", its_name),
        held_(std::make_shared<HeldVersion>(type)),
        publisher_(DescribeTopic(StateName(its_name), bridge::BridgeType::Sync)),
        optional_audience_(StateName(its_name), bridge::BridgeType::Sync, Ignore),
        server_(StateName(its_name), bridge::BridgeType::Sync,
                [held = held_](const std::any& request, std::any& response) {
                  held->Answer(request, response);
                }),
        listed_(*this) {}

  // Stores the version before it is published, so that a watcher that asks later gets it.
  void Set(std::shared_ptr<const void> value) {
    const Section section(process, "Set", name);
    std::any message(Version{0, std::move(value), &held_->type()});  // first, since it may fail
    auto& version = *std::any_cast<Version>(&message);
    Version before = held_->Store(version);
    const std::uint64_t number = version.number;
    try {
      Bridge().Publish(publisher_.control, std::move(message));
    } catch (const std::bad_alloc&) {
      // Thrown by the bridge before it has invoked anybody: it contains what callables throw.
      held_->Restore(number, std::move(before));
      throw;
    }
  }

 private:
  const std::shared_ptr<HeldVersion> held_;
  const Participant publisher_;
  const Subscription optional_audience_;
  const ServerRegistration server_;
  const Listed listed_;
};

// The latest version that a watcher has. It is pending until the callable has been invoked with it.
class WatchQueue : public Queue {
 public:
  WatchQueue(const std::string& its_name, std::shared_ptr<Mailbox> its_mailbox, bool has_callable)
      : Queue("Watcher", its_name, std::move(its_mailbox)), has_callable_(has_callable) {
    const std::lock_guard lock(mutex());
    turns().Reserve();  // Push must not fail for want of memory
  }
  ~WatchQueue() override {
    const std::lock_guard lock(mutex());
    turns().Unreserve(1);
  }

  // Ignores versions that are not later than the latest.
  void Push(Version version) {
    {
      Lock lock(mutex());
      if (version.number <= latest_.number) return;
      std::swap(latest_, version);  // the previous one is destroyed under no lock
      changed_.notify_all();
      if (!has_callable_ || is_pending_ || IsClosed()) return;
      is_pending_ = true;
      AddTurn();
      Unlock(lock);
    }
    AfterPush();
  }

  std::shared_ptr<const void> Latest() const {
    const std::lock_guard lock(mutex());
    return latest_.value;
  }

  std::shared_ptr<const void> WaitFor(Clock::time_point end) {
    Lock lock(mutex());
    changed_.wait_until(lock, end, [&] { return latest_.value != nullptr; });
    return latest_.value;
  }

  Counts Count() const override {
    const std::lock_guard lock(mutex());
    return {is_pending_ ? 1u : 0u, has_callable_ ? 1u : 0u, 0};
  }

 private:
  virtual void InvokeWith(const void* value) = 0;

  void TakeAndInvoke(Lock& lock) override {
    const std::shared_ptr<const void> value = latest_.value;
    is_pending_ = false;
    Unlock(lock);
    Invoke([&] { InvokeWith(value.get()); });
  }
  void Discard(Lock& lock) override {
    is_pending_ = false;
    RemoveTurns();
    Unlock(lock);
  }

  const bool has_callable_;
  std::condition_variable changed_;
  Version latest_;  // guarded by the mailbox's mutex, as is:
  bool is_pending_ = false;
};

template <typename Value, typename Callable>
class WatchCallable final : public WatchQueue {
 public:
  static constexpr bool kHasCallable = !std::is_same_v<Callable, std::nullptr_t>;
  WatchCallable(const std::string& its_name, std::shared_ptr<Mailbox> its_mailbox,
                Callable callable)
      : WatchQueue(its_name, std::move(its_mailbox), kHasCallable),
        callable_(std::move(callable)) {}

 private:
  void InvokeWith(const void* value) override {
    if constexpr (kHasCallable) {
      static_cast<void>(std::invoke(*callable_, *static_cast<const Value*>(value)));
    }
  }
  void DestroyCallable() override { callable_.reset(); }
  std::optional<Callable> callable_;
};

// Drains itself on the thread that pushes, unless another thread is draining it. That thread goes
// on then.
class DirectMailbox final : public Mailbox {
 public:
  DirectMailbox() : Mailbox("") {}

 private:
  void AfterPush() override {
    std::exception_ptr first;
    while (ready()) {
      try {
        Drain([] { return true; });
      } catch (...) {
        if (first == nullptr) first = std::current_exception();
      }
    }
    if (first != nullptr) std::rethrow_exception(first);
  }
};

struct Watch {
  template <typename Function>
  Watch(std::shared_ptr<WatchQueue> queue, const std::string& name, Function push)
      : client(DescribeService(StateName(name), bridge::BridgeType::Sync)),
        receiver(std::move(queue), StateName(name), bridge::BridgeType::Sync, std::move(push)) {}

  WatchQueue& queue() const { return **receiver.owner; }

  // Pushes the holder's version, if there is a holder.
  void AskHolder(const std::type_info& type) const {
    Version latest;
    const std::any request(&type);
    Bridge().Call(client.control, [&](auto& serve) {
      std::any response(&latest);
      serve(request, response);
    });
    queue().Push(std::move(latest));
  }

  const Participant client;
  const Receiver<WatchQueue, Subscription> receiver;
};

template <typename Value, typename Callable>
std::shared_ptr<void> MakeWatcher(const std::string& name, std::shared_ptr<Mailbox> mailbox,
                                  Callable callable) {
  const std::shared_ptr<WatchQueue> queue = std::make_shared<WatchCallable<Value, Callable>>(
      name, std::move(mailbox), std::move(callable));
  const auto push = [queue](const std::any& message) {
    const auto& version = Cast<Version>(message, "message", "watcher");
    if (*version.type != typeid(Value)) {
      throw TypeMismatch("value", *version.type, "watcher", typeid(Value));
    }
    queue->Push(version);
  };
  auto watch = std::make_shared<Watch>(queue, name, push);
  watch->AskHolder(typeid(Value));
  return watch;
}

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_WATCH_H_
