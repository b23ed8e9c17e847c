// The list of all handles of the process, and what is measured of their invocations. Not for users:
// see inspect.h.
#ifndef ZORVIX_DETAIL_REGISTRY_H_
#define ZORVIX_DETAIL_REGISTRY_H_

#include <dlfcn.h>
#include <sys/mman.h>
#include <zorvix/detail/base.h>

#include <cstring>
#include <new>
#include <utility>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

struct Process;
Process& ThisProcess();

// Returns the file name of the module that this code is in, such as "libhud.so".
inline const char* ModuleName() {
  static const char* const name = [] {
    static const char anchor = 0;
    Dl_info info = {};
    if (dladdr(&anchor, &info) == 0 || info.dli_fname == nullptr) return "?";
    const char* const slash = std::strrchr(info.dli_fname, '/');
    return slash == nullptr ? info.dli_fname : slash + 1;
  }();
  return name;
}

struct Counts {
  std::size_t pending = 0;
  std::size_t depth = 0;  // 0: nothing is kept
  std::size_t dropped = 0;
};

// What is known of one handle.
struct Record {
  Record(const char* its_kind, std::string its_name)
      : kind(its_kind), name(std::move(its_name)), process(ThisProcess()) {}
  virtual ~Record() = default;
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;
  virtual Counts Count() const { return {}; }

  const char* const kind;
  const std::string name;  // of the topic, service or state
  const char* const module = ModuleName();
  Process& process;
  // While a SlowLog lives:
  std::atomic<std::uint64_t> invocations{0};
  std::atomic<std::int64_t> longest{0};  // nanoseconds

  // The neighbours in the process's list, guarded by its mutex.
  Record* next = nullptr;
  Record* previous = nullptr;
};

// One of the limits of the SlowLogs that live.
struct SlowLimit {
  std::int64_t nanoseconds;  // more than 0
  SlowLimit* next;
};

// What all modules of the process share. Its memory is mapped by the first module that has a handle
// and is never unmapped, since that module may be unloaded before others.
struct Process {
  Process() {
    void* library = RTLD_DEFAULT;
#ifdef __ANDROID__
    // Not among the default libraries of every process.
    if (void* const android = dlopen("libandroid.so", RTLD_NOW)) library = android;
#endif
    const auto look_up = [library](auto& function, const char* name) {
      function = reinterpret_cast<std::decay_t<decltype(function)>>(dlsym(library, name));
    };
    look_up(begin_section, "ATrace_beginSection");
    look_up(end_section, "ATrace_endSection");
    look_up(set_counter, "ATrace_setCounter");
    if (begin_section != nullptr && end_section != nullptr) {
      look_up(is_tracing, "ATrace_isEnabled");
    }
  }
  bool IsTracing() const { return is_tracing != nullptr && is_tracing(); }

  std::mutex mutex;
  Record* records ZORVIX_GUARDED_BY(mutex) = nullptr;
  SlowLimit* slow_limits ZORVIX_GUARDED_BY(mutex) = nullptr;
  std::atomic<std::int64_t> smallest_slow_limit{0};  // nanoseconds; 0: nothing is measured
  // Android's functions, or null where there are none.
  bool (*is_tracing)() = nullptr;
  void (*begin_section)(const char*) = nullptr;
  void (*end_section)() = nullptr;
  void (*set_counter)(const char*, std::int64_t) = nullptr;
};

// Allocates pages of its own, in which leak checkers do not look for lost memory.
template <typename Value>
struct PageAllocator {
  using value_type = Value;
  PageAllocator() = default;
  template <typename Other>
  explicit PageAllocator(const PageAllocator<Other>&) {}
  Value* allocate(std::size_t count) {
    void* const pages = mmap(nullptr, count * sizeof(Value), PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) throw std::bad_alloc();
    return static_cast<Value*>(pages);
  }
  void deallocate(Value* pages, std::size_t count) { munmap(pages, count * sizeof(Value)); }
  bool operator==(const PageAllocator&) const { return true; }
  bool operator!=(const PageAllocator&) const { return false; }
};

// The bridge gives all participants of a name one object: here the one that has the Process. It
// owns itself, so that nobody ever runs the code that would destroy it, which may be unloaded.
struct ProcessControl : bridge::Control {
  // With the version, since modules must agree on the layout of what they share. The name is short
  // enough to be stored inside the string.
  ProcessControl() : Control{"zorvix/" + std::to_string(ZORVIX_VERSION)} {}
  Process process;
  std::shared_ptr<const bridge::Control> itself;
};

inline Process& FindProcess() {
  const auto own = std::allocate_shared<ProcessControl>(PageAllocator<ProcessControl>());
  std::shared_ptr<const bridge::Control> shared = own;
  Bridge().RegisterPublisher(shared);
  if (shared == own) own->itself = shared;
  auto& control = const_cast<bridge::Control&>(*shared);
  return static_cast<ProcessControl&>(control).process;
}

inline Process& ThisProcess() {
  static Process& process = FindProcess();
  return process;
}

// Keeps a record in the list. It is the last member of what owns the record, so that Inspect sees
// only complete handles.
class Listed {
 public:
  explicit Listed(Record& record) : record_(record) {
    Process& process = record_.process;
    const std::lock_guard lock(process.mutex);
    record_.next = process.records;
    if (record_.next != nullptr) record_.next->previous = &record_;
    process.records = &record_;
  }
  ~Listed() {
    Process& process = record_.process;
    const std::lock_guard lock(process.mutex);
    if (record_.next != nullptr) record_.next->previous = record_.previous;
    if (record_.previous != nullptr) {
      record_.previous->next = record_.next;
    } else {
      process.records = record_.next;
    }
  }
  Listed(const Listed&) = delete;
  Listed& operator=(const Listed&) = delete;

 private:
  Record& record_;
};

// Adds a limit to those of the process.
class SlowLimitOwner {
 public:
  explicit SlowLimitOwner(std::chrono::nanoseconds limit)
      : limit_{std::max<std::int64_t>(limit.count(), 1), nullptr} {
    const std::lock_guard lock(process_.mutex);
    limit_.next = std::exchange(process_.slow_limits, &limit_);
    UpdateSmallest();
  }
  ~SlowLimitOwner() {
    const std::lock_guard lock(process_.mutex);
    SlowLimit** link = &process_.slow_limits;
    while (*link != &limit_) link = &(*link)->next;
    *link = limit_.next;
    UpdateSmallest();
  }
  SlowLimitOwner(const SlowLimitOwner&) = delete;
  SlowLimitOwner& operator=(const SlowLimitOwner&) = delete;

 private:
  void UpdateSmallest() ZORVIX_REQUIRES(process_.mutex) {
    std::int64_t smallest = 0;
    for (auto* limit = process_.slow_limits; limit != nullptr; limit = limit->next) {
      if (smallest == 0 || limit->nanoseconds < smallest) smallest = limit->nanoseconds;
    }
    process_.smallest_slow_limit = smallest;
  }

  Process& process_ = ThisProcess();
  SlowLimit limit_;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_REGISTRY_H_
