// The list of the handles of the process, what is measured of their invocations, and the platform's
// trace.
#ifndef ZORVIX_HANDLES_RECORDS_H_
#define ZORVIX_HANDLES_RECORDS_H_

#include <zorvix/detail/erasure.h>
#include <zorvix/detail/listing.h>
#include <zorvix/timeout.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <exception>
#include <iterator>
#include <list>
#include <set>
#include <string>
#include <typeinfo>

#include "modules.h"
#include "sync.h"
#include "threads.h"

namespace zorvix::detail {

// Returns the end of a wait that begins now, or kNever.
Clock::time_point Deadline(Timeout timeout);

struct Participant;
struct ServerRegistration;
class Strand;
class WaitingReply;

// The invocation of a callable that is in progress, if there is one.
struct Invocation {
  // A number and the thread that is inside, or 0, as one value.
  std::atomic<std::uint64_t> state{0};
  // While a SlowLog exists:
  std::atomic<std::int64_t> began{0};         // when the invocation began, in nanoseconds ...
  std::atomic<std::uint64_t> began_state{0};  // ... which is this one

  // What Inspect saw last. Guarded by the mutex of the list.
  std::uint64_t seen_state = 0;
  Clock::time_point seen_at;

  // Linux has at most 2^22 threads.
  static constexpr std::uint64_t kNumber = std::uint64_t{1} << 24;
  static constexpr std::uint64_t kThread = kNumber - 1;
  static int Thread(std::uint64_t state) { return static_cast<int>(state & kThread); }
};

// The invocations of a callable that are in progress. Several threads may be inside one without a
// strand: those beyond the fourth are not followed.
class Inside {
 public:
  // Returns null if it does not follow this invocation. Otherwise End must follow.
  Invocation* Begin() {
    const auto thread = static_cast<std::uint64_t>(ThisThread());
    if (!first_.IsThisThread()) return BeginAsOther(thread);
    Invocation& invocation = invocations_[0];
    const std::uint64_t last = invocation.state.load(std::memory_order_relaxed);
    if ((last & Invocation::kThread) != 0) return nullptr;  // this one is nested
    invocation.state.store((last + Invocation::kNumber) | thread, std::memory_order_relaxed);
    return &invocation;
  }
  static void End(Invocation& invocation) {
    const std::uint64_t state = invocation.state.load(std::memory_order_relaxed);
    invocation.state.store(state & ~Invocation::kThread, std::memory_order_relaxed);
  }

  // Returns a thread that is inside, other than `except`, or 0.
  int Thread(int except = 0) const {
    for (const Invocation& invocation : invocations_) {
      const int thread = Invocation::Thread(invocation.state.load(std::memory_order_relaxed));
      if (thread != 0 && thread != except) return thread;
    }
    return 0;
  }
  auto& invocations() { return invocations_; }

 private:
  Invocation* BeginAsOther(std::uint64_t thread) {
    for (auto* invocation = &invocations_[1]; invocation != std::end(invocations_); ++invocation) {
      std::uint64_t last = invocation->state.load(std::memory_order_relaxed);
      if ((last & Invocation::kThread) != 0) continue;
      const std::uint64_t state = (last + Invocation::kNumber) | thread;
      const auto order = std::memory_order_relaxed;
      if (invocation->state.compare_exchange_strong(last, state, order)) return invocation;
    }
    return nullptr;
  }

  FirstThread first_;
  std::array<Invocation, 4> invocations_;  // the first one is that of the first thread
};

// What is known of one handle. What an invocation writes is read by Inspect and by lines of the
// log, long after, so it needs no order.
struct Record {
  Record(const char* its_kind, const std::string& its_name, Module& its_module)
      : kind(its_kind), name(its_name), module(ModuleName(its_module)) {}
  virtual ~Record() = default;
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;
  virtual Counts Count() const { return {}; }

  // What invokes the callable.
  enum class Invoker {
    kDelivery,  // the thread that publishes or calls
    kTask,      // a task of the bridge's queue
    kDrain,     // a drain that is no task, such as that of an inbox
  };

  const char* const kind;
  const std::string name;  // of the topic, service or state
  const char* const module;
  // Set before the record is listed; `invoker` before the handle is registered.
  bool has_callable = false;
  Invoker invoker = Invoker::kDelivery;
  const std::type_info* message_type = nullptr;  // or of requests or values
  const std::type_info* response_type = nullptr;
  const Participant* participant = nullptr;  // with the name of its counterparts
  const char* counted_kind = nullptr;        // of a presence: the kind of its counterparts
  long own_participants = 1;                 // the endpoints of that name that are the handle's
  const ServerRegistration* server = nullptr;
  const Strand* strand = nullptr;  // in which the callable is invoked, if in any

  Counter sent;      // messages published, values set, calls made
  Counter received;  // answers to calls with a callable
  Counter rejected;  // because of their type
  Counter invocations;
  Inside inside;
  std::atomic<std::int64_t> longest{0};  // while a SlowLog exists, nanoseconds

  // The row of another library that shows this record, if any. Guarded by the mutex of the list.
  const Record* adopter = nullptr;
};

// What invokes a callable. Others may share it for longer than its handle exists.
struct Receiver : Record {
  Receiver(const char* its_kind, const std::string& its_name, Module& its_module)
      : Record(its_kind, its_name, its_module), code_(its_module) {
    has_callable = true;
  }
  // To be called while code of the module throws an exception that cannot be copied: the
  // code that catches it destroys it, which may be code of the module, too.
  void KeepLoadedForException() const {
    KeepLoaded(code_, "it has thrown what is no std::exception", name);
  }
  // When it has returned, no code of the callable's module is needed any more.
  virtual void Close() = 0;

 private:
  Module& code_;
};

// What the process has one of. Never destroyed, since static handles of users may be destroyed
// after it.
struct Process {
  static Process& Get();

  Mutex mutex;
  std::list<Record*> records ZORVIX_GUARDED_BY(mutex);
  std::list<const WaitingReply*> waits ZORVIX_GUARDED_BY(mutex);
  std::multiset<std::int64_t> slow_limits ZORVIX_GUARDED_BY(mutex);  // of SlowLogs, nanoseconds
};
// The smallest limit of a SlowLog, in nanoseconds; 0: nothing is measured.
extern std::atomic<std::int64_t> smallest_slow_limit;

// Keeps a record in the list. It is the last member of what owns the record, so that Inspect sees
// only complete handles.
class Listed {
 public:
  explicit Listed(Record& record);
  ~Listed();
  Listed(const Listed&) = delete;
  Listed& operator=(const Listed&) = delete;

 private:
  std::list<Record*>::iterator position_;
};

// Android's functions for tracing, or null pointers on a platform without them.
struct Trace {
  static Trace LookUp();
  bool IsOn() const { return is_on != nullptr && is_on(); }

  bool (*is_on)() = nullptr;
  void (*begin_section)(const char*) = nullptr;
  void (*end_section)() = nullptr;
  void (*set_counter)(const char*, std::int64_t) = nullptr;
};
extern const Trace trace;

// A section of the platform's trace, such as "Subscriber readings". It ends on the thread on which
// it began, even when tracing has been switched off meanwhile.
class Section {
 public:
  Section(const char* kind, const std::string& name) : has_begun_(trace.IsOn()) {
    if (has_begun_) Begin(kind, name);
  }
  ~Section() {
    if (has_begun_) trace.end_section();
  }
  Section(const Section&) = delete;
  Section& operator=(const Section&) = delete;

 private:
  static void Begin(const char* kind, const std::string& name);
  const bool has_begun_;
};

// Surrounds an invocation of a handle's callable. Reads no clock unless a SlowLog exists.
class Measured {
 public:
  explicit Measured(Record& record)
      : section_(record.kind, record.name),
        record_(record),
        invocation_(record.inside.Begin()),
        limit_(smallest_slow_limit.load(std::memory_order_relaxed)) {
    record_.invocations.Add();
    if (limit_ != 0) Start();
  }
  ~Measured() {
    if (invocation_ != nullptr) Inside::End(*invocation_);
    if (limit_ != 0) Finish();
  }
  Measured(const Measured&) = delete;
  Measured& operator=(const Measured&) = delete;

 private:
  void Start();
  void Finish();

  const Section section_;
  Record& record_;
  Invocation* const invocation_;
  const std::int64_t limit_;
  Clock::time_point start_;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_RECORDS_H_
