// Direct delivery: keeps a callable from being invoked once its handle is destroyed. Not for users.
#ifndef ZORVIX_DETAIL_GATE_H_
#define ZORVIX_DETAIL_GATE_H_

#include <zorvix/detail/measured.h>

#include <optional>
#include <utility>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

// Counts the invocations of a callable, which any number of threads may make at the same time. An
// invocation costs two atomic operations and no lock.
class Gate : public Record {
 public:
  using Record::Record;

  // Lets no invocation begin and waits for those on other threads. Then destroys the callable, or
  // leaves that to this thread's outermost invocation of it. No lock is held meanwhile, and the
  // gate itself may be shared for longer.
  void Close();

 protected:
  // An invocation on the stack of its thread, linked to those around it.
  class Invocation {
   public:
    explicit Invocation(Gate& gate)
        : gate_(gate),
          around_(std::exchange(innermost_, this)),
          admitted_(gate.invocations_++ < kClosed) {}
    ~Invocation();
    Invocation(const Invocation&) = delete;
    Invocation& operator=(const Invocation&) = delete;

    bool admitted() const { return admitted_; }

   private:
    friend class Gate;
    Gate& gate_;
    const Invocation* const around_;
    const bool admitted_;
    static inline thread_local const Invocation* innermost_ = nullptr;
  };

 private:
  virtual void DestroyCallable() = 0;

  static constexpr std::uint32_t kClosed = 1u << 31;
  std::atomic<std::uint32_t> invocations_{0};  // in progress; kClosed is added by Close
  // Destroys the callable when it ends. Written by Close on the thread of that invocation.
  const Invocation* last_ = nullptr;
  std::mutex mutex_;  // for ended_
  std::condition_variable ended_;
};

inline Gate::Invocation::~Invocation() {
  innermost_ = around_;
  if (admitted_ && gate_.last_ == this) gate_.DestroyCallable();
  const std::uint32_t left = --gate_.invocations_;
  if (left < kClosed) return;
  {
    // Close may be between its look at the count and its wait.
    const std::lock_guard lock(gate_.mutex_);
  }
  gate_.ended_.notify_all();
}

inline void Gate::Close() {
  const Invocation* outermost = nullptr;
  std::uint32_t own_invocations = 0;
  for (auto* own = Invocation::innermost_; own != nullptr; own = own->around_) {
    if (&own->gate_ != this) continue;
    outermost = own;
    ++own_invocations;
  }
  invocations_ += kClosed;
  {
    const auto others_ended = [&] { return invocations_ == kClosed + own_invocations; };
    std::unique_lock lock(mutex_);
    if (!ended_.wait_for(lock, std::chrono::seconds(1), others_ended)) {
      ZORVIX_LOG("detail/gate.h", bridge::kLogWarn,
                 "a destructor waits for its callable to return, name: %s", name.c_str());
      ended_.wait(lock, others_ended);
    }
  }
  if (own_invocations == 0) {
    DestroyCallable();
  } else {
    last_ = outermost;  // still on this thread's stack
  }
}

template <typename Callable>
class GatedCallable final : public Gate {
 public:
  GatedCallable(const char* its_kind, std::string its_name, Callable callable)
      : Gate(its_kind, std::move(its_name)), callable_(std::move(callable)) {}

  // Invokes callable(arguments...) unless the gate is closed.
  template <typename... Arguments>
  void operator()(Arguments&&... arguments) {
    const Invocation invocation(*this);
    if (!invocation.admitted()) return;
    const Measured measured(*this);
    static_cast<void>(std::invoke(*callable_, std::forward<Arguments>(arguments)...));
  }

 private:
  void DestroyCallable() override { callable_.reset(); }
  std::optional<Callable> callable_;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_GATE_H_
