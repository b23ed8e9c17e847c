#include "records.h"

#include <dlfcn.h>

#include <chrono>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

// What modules need to be loaded: see erasure.h.
const int zorvix_handles_5_1 = 0;

namespace zorvix::detail {

// Looked up when the library is loaded.
const Trace trace = Trace::LookUp();
std::atomic<std::int64_t> smallest_slow_limit{0};

Clock::time_point Deadline(Timeout timeout) {
  return timeout.IsForever() ? kNever : Clock::now() + timeout.time();
}

Process& Process::Get() {
  static Process& process = *new Process;
  return process;
}

namespace {

// The row of a Listing for the next handle of this thread.
thread_local const Record* next_adopter = nullptr;

}  // namespace

Listed::Listed(Record& record) {
  Process& process = Process::Get();
  const Lock lock(process.mutex);
  position_ = process.records.insert(process.records.end(), &record);
  record.adopter = std::exchange(next_adopter, nullptr);
}

Listed::~Listed() {
  Process& process = Process::Get();
  const Lock lock(process.mutex);
  process.records.erase(position_);
}

struct Listing::Row final : Record {
  Row(const char* its_kind, const std::string& its_name, Module& its_module,
      std::function<Counts()> its_count)
      : Record(its_kind, its_name, its_module), count(std::move(its_count)), listed(*this) {}
  Counts Count() const override { return count(); }

  const std::function<Counts()> count;
  const Listed listed;
};

Listing::Listing(const char* kind, const std::string& name, Module& module,
                 std::function<Counts()> count)
    : row_(std::make_unique<Row>(kind, name, module, std::move(count))) {}

Listing::~Listing() {
  if (next_adopter == row_.get()) next_adopter = nullptr;  // the handle could not be constructed
}

void Listing::AdoptNextHandle() { next_adopter = row_.get(); }

Trace Trace::LookUp() {
  void* library = RTLD_DEFAULT;
#ifdef __ANDROID__
  // Not among the default libraries of every process.
  if (void* const android = dlopen("libandroid.so", RTLD_NOW)) library = android;
#endif
  const auto look_up = [library](auto& function, const char* name) {
    function = reinterpret_cast<std::decay_t<decltype(function)>>(dlsym(library, name));
  };
  Trace found;
  look_up(found.begin_section, "ATrace_beginSection");
  look_up(found.end_section, "ATrace_endSection");
  look_up(found.set_counter, "ATrace_setCounter");
  if (found.begin_section != nullptr && found.end_section != nullptr) {
    look_up(found.is_on, "ATrace_isEnabled");
  }
  return found;
}

void Section::Begin(const char* kind, const std::string& name) {
  trace.begin_section((std::string(kind) + ' ' + name).c_str());
}

void Measured::Start() {
  start_ = Clock::now();
  if (invocation_ == nullptr) return;
  invocation_->began = std::chrono::nanoseconds(start_.time_since_epoch()).count();
  invocation_->began_state = invocation_->state.load();
}

void Measured::Finish() {
  const std::chrono::nanoseconds elapsed = Clock::now() - start_;
  std::int64_t longest = record_.longest;
  while (longest < elapsed.count() &&
         !record_.longest.compare_exchange_weak(longest, elapsed.count())) {
  }
  if (elapsed.count() <= limit_) return;
  BRIDGE_LOG(bridge::kLogWarn, "a callable took %lld ms, kind: %s, name: %s, module: %s",
             static_cast<long long>(elapsed.count() / 1'000'000), record_.kind,
             record_.name.c_str(), record_.module);
}

}  // namespace zorvix::detail
