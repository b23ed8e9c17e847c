// The gate that lets no callable run once its handle has gone, and what all headers beside this one
// need. Not for users.
#ifndef ZORVIX_GATE_H_
#define ZORVIX_GATE_H_

#include <zorvix/zorvix.h>

#include <chrono>
#include <optional>
#include <utility>

// No module may bind to another's copy of what these headers define, or it could not be unloaded
// alone. Types stay visible, since users' classes have handles as members, but functions do not. On
// a constructor template clang overlooks the attribute; inlined, it leaves no symbol either.
#define ZORVIX_HIDDEN __attribute__((visibility("hidden")))
#define ZORVIX_INLINED __attribute__((always_inline))
#define ZORVIX_MOVE_ONLY(Handle)                                \
  ZORVIX_HIDDEN Handle(Handle&&) noexcept = default;            \
  ZORVIX_HIDDEN Handle& operator=(Handle&&) noexcept = default; \
  ZORVIX_HIDDEN ~Handle() = default

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

// A negative time has no end, but no more than years, which do not overflow.
inline std::chrono::steady_clock::time_point Deadline(std::chrono::milliseconds at_most) {
  constexpr std::chrono::milliseconds kYears = std::chrono::hours(87'600);
  return std::chrono::steady_clock::now() +
         (at_most.count() < 0 ? kYears : std::min(at_most, kYears));
}

// A callable's gate. A run costs two atomic operations and no lock.
struct Gate {
  // On the stack of its thread, linked to the runs around it.
  struct Run {
    explicit Run(Gate& entered)
        : gate(entered), around(std::exchange(innermost, this)), open(gate.runs++ < kClosed) {}
    ~Run() {
      innermost = around;
      if (open && gate.last == this) gate.Drop();
      if (--gate.runs < kClosed) return;
      { const std::lock_guard lock(gate.mutex); }  // Close may be about to wait
      gate.ended.notify_all();
    }
    Run(const Run&) = delete;
    Gate& gate;
    const Run* const around;
    const bool open;
    static inline thread_local const Run* innermost = nullptr;
  };

  explicit Gate(std::string endpoint) : name(std::move(endpoint)) {}
  virtual ~Gate() = default;
  virtual void Drop() = 0;  // what the callable owns

  // Lets no run begin and waits for those on other threads. The callable goes here, or with the
  // last run of this thread, but under no lock, though others may share the gate for longer.
  void Close() {
    const Run* outermost = nullptr;
    std::uint32_t own = 0;
    for (auto* run = Run::innermost; run != nullptr; run = run->around) {
      if (&run->gate == this) outermost = run, ++own;
    }
    runs += kClosed;
    {
      const auto others_ended = [&] { return runs == kClosed + own; };
      std::unique_lock lock(mutex);
      if (!ended.wait_for(lock, std::chrono::seconds(1), others_ended)) {
        BRIDGE_LOG(bridge::kLogWarn, "a destructor waits for its callable to return, name: %s",
                   name.c_str());
        ended.wait(lock, others_ended);
      }
    }
    own == 0 ? Drop() : void(last = outermost);
  }

  static constexpr std::uint32_t kClosed = 1u << 31;
  const std::string name;              // of the endpoint, for the log
  std::atomic<std::uint32_t> runs{0};  // and kClosed
  const Run* last = nullptr;           // drops the callable; only runs that are open look
  std::mutex mutex;                    // for `ended` only
  std::condition_variable ended;
};

template <typename Callable>
struct Gated final : Gate {
  Gated(std::string endpoint, Callable function)
      : Gate(std::move(endpoint)), callable(std::move(function)) {}
  void Drop() override { callable.reset(); }

  // Calls callable(arguments...) unless the gate is closed.
  template <typename... Arguments>
  void operator()(const Arguments&... arguments) {
    if (const Run run(*this); run.open) static_cast<void>(std::invoke(*callable, arguments...));
  }
  std::optional<Callable> callable;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_GATE_H_
