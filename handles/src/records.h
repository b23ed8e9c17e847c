// The list of the handles of the process, what is measured of their invocations, and the platform's
// trace.
#ifndef ZORVIX_HANDLES_RECORDS_H_
#define ZORVIX_HANDLES_RECORDS_H_

#include <zorvix/detail/erasure.h>
#include <zorvix/detail/listing.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <set>
#include <string>

#include "modules.h"
#include "sync.h"

namespace zorvix::detail {

// Returns the end of a wait. A negative limit stands for no limit, which is a time so far away that
// adding it does not overflow.
Clock::time_point Deadline(std::chrono::milliseconds limit);

// What is known of one handle.
struct Record {
  Record(const char* its_kind, const std::string& its_name, Module& its_module)
      : kind(its_kind), name(its_name), module(ModuleName(its_module)) {}
  virtual ~Record() = default;
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;
  virtual Counts Count() const { return {}; }

  // What invokes the callable.
  enum class Invoker {
    kDelivery,  // whoever publishes or calls
    kTask,      // a task of the bridge's queue
    kDrain,     // a drain that is no task, such as that of an inbox
  };

  const char* const kind;
  const std::string name;  // of the topic, service or state
  const char* const module;
  Invoker invoker = Invoker::kDelivery;  // set before it is registered
  // A task is inside the callable. If several are, which only a handle without a strand allows, it
  // follows the first of them.
  std::atomic<bool> is_task_inside{false};
  // While a SlowLog exists:
  std::atomic<std::uint64_t> invocations{0};
  std::atomic<std::int64_t> longest{0};  // nanoseconds
  // Guarded by the mutex of the process:
  Record* adopter = nullptr;        // a Listing that shows this record in its row
  const Record* adopted = nullptr;  // the record that this Listing shows
};

// What invokes a callable. Others may share it for longer than its handle exists.
struct Receiver : Record {
  Receiver(const char* its_kind, const std::string& its_name, Module& its_module)
      : Record(its_kind, its_name, its_module), code_(its_module) {}
  // To be called while code of the module throws an exception that cannot be copied: whoever
  // catches it destroys it, which may be code of the module, too.
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

// Android's functions for tracing, or null where there are none.
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

// Surrounds an invocation of a handle's callable. Reads no clock unless a SlowLog exists. What it
// notes of tasks is read long after, so it needs no order.
class Measured {
 public:
  explicit Measured(Record& record)
      : section_(record.kind, record.name),
        record_(record),
        is_first_task_(record.invoker == Record::Invoker::kTask &&
                       !record.is_task_inside.load(std::memory_order_relaxed)),
        limit_(smallest_slow_limit.load(std::memory_order_relaxed)) {
    if (is_first_task_) record_.is_task_inside.store(true, std::memory_order_relaxed);
    if (limit_ != 0) start_ = Clock::now();
  }
  ~Measured() {
    if (is_first_task_) record_.is_task_inside.store(false, std::memory_order_relaxed);
    if (limit_ != 0) Finish();
  }
  Measured(const Measured&) = delete;
  Measured& operator=(const Measured&) = delete;

 private:
  void Finish();

  const Section section_;
  Record& record_;
  const bool is_first_task_;
  const std::int64_t limit_;
  Clock::time_point start_;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_RECORDS_H_
