#include "schedule.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/tsan_interface.h>
#include <semaphore.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <sstream>
#include <utility>
#include <vector>

namespace schedule {

using Time = std::chrono::steady_clock::time_point;

struct Wait {
  const char* what = nullptr;  // null: it does not wait
  const void* object = nullptr;
  mutex* needed = nullptr;  // to go on
  bool is_over = false;     // but for the mutex
  Time end = Time::max();
  bool may_end_early = false;
};

struct Thread {
  sem_t go;  // posted when it goes on
  std::thread::id id;
  std::function<void()> function;
  bool has_ended = false;
  Wait wait;
  bool has_timed_out = false;
};

namespace {

constexpr Time kNever{std::chrono::hours(2)};  // a wait that ends later has no limit
constexpr std::size_t kMostDeviations = 3;     // from the plain schedule
constexpr std::size_t kMostSteps = 20'000;
constexpr std::chrono::seconds kSystematicTime(7);  // for each scenario, at most
constexpr std::chrono::seconds kRandomTime(3);

using Candidate = std::pair<Thread*, bool>;  // whether it times out

// A step at which there was a choice.
struct Decision {
  std::size_t step;
  std::size_t taken;
  std::size_t choices;
};

// The first one explores. The others are used again by the next run.
std::vector<std::unique_ptr<Thread>> threads;
std::size_t count = 0;  // of the threads in this run
thread_local Thread* self = nullptr;

enum class Mode { kSystematic, kRandom, kReplay } mode;
std::string scenario_name;
Timeouts its_timeouts;
std::size_t bound = 0;                        // of deviations
std::vector<Decision> plan;                   // of this run; systematic: how it begins, too
std::map<std::size_t, std::size_t> replayed;  // what is taken, by step
std::mt19937 generator;

// Of this run:
Time time_now;
std::size_t step = 0;
std::size_t decisions = 0;
std::size_t deviations = 0;

// Hides from ThreadSanitizer what a thread does here.
class Hidden {
 public:
  Hidden() { __tsan_mutex_pre_signal(this, 0); }
  ~Hidden() { __tsan_mutex_post_signal(this, 0); }
};

void PrintSchedule() {
  std::ostringstream line;
  char separator = ':';
  for (const auto& [at, taken, choices] : plan) {
    if (taken != 0) line << std::exchange(separator, ',') << at << '.' << taken;
  }
  std::fprintf(stderr, "ZORVIX_SCHEDULE=%s%s\n", scenario_name.c_str(), line.str().c_str());
}

[[noreturn]] void Fail(const char* fault) {
  std::fprintf(stderr, "%s: %s\n", scenario_name.c_str(), fault);
  for (std::size_t i = 0; i < count; ++i) {
    const Wait& wait = threads[i]->wait;
    if (wait.what == nullptr) continue;
    std::fprintf(stderr, "thread %zu waits for %s %p\n", i, wait.what, wait.object);
  }
  PrintSchedule();
  std::_Exit(1);
}

bool CanLock(const Wait& wait) { return wait.needed == nullptr || !wait.needed->is_held; }

bool IsReady(const Thread& thread) {
  const Wait& wait = thread.wait;
  return !thread.has_ended && (wait.what == nullptr || (wait.is_over && CanLock(wait)));
}

bool CanWake(const Thread& thread) {
  return thread.wait.what != nullptr && !thread.wait.is_over && CanLock(thread.wait);
}

void EndWaitsFor(const void* object) {
  for (std::size_t i = 0; i < count; ++i) {
    if (threads[i]->wait.object == object) threads[i]->wait.is_over = true;
  }
}

// Returns the one whose time is over first.
Thread* FindTimeout() {
  Thread* first = nullptr;
  for (std::size_t i = 0; i < count; ++i) {
    Thread& thread = *threads[i];
    if (!CanWake(thread) || thread.wait.end > kNever) continue;
    if (first == nullptr || thread.wait.end < first->wait.end) first = &thread;
  }
  if (first == nullptr) Fail("all threads wait");
  const bool is_pause = first->wait.needed == nullptr;
  if (its_timeouts == Timeouts::kAreFaults && !is_pause) Fail("all threads wait for a timeout");
  return first;
}

// All but the first one deviate from the plain schedule.
std::vector<Candidate> FindCandidates() {
  std::vector<Candidate> candidates;
  if (IsReady(*self)) candidates.push_back({self, false});
  for (std::size_t i = 0; i < count; ++i) {
    Thread* const other = threads[i].get();
    if (other != self && IsReady(*other)) candidates.push_back({other, false});
  }
  if (candidates.empty()) candidates.push_back({FindTimeout(), true});
  for (std::size_t i = 0; i < count; ++i) {
    Thread* const waiting = threads[i].get();
    if (!CanWake(*waiting) || !waiting->wait.may_end_early) continue;
    candidates.push_back({waiting, false});
    const bool may_time_out = waiting->wait.end < kNever && its_timeouts != Timeouts::kComeLast;
    if (may_time_out) candidates.push_back({waiting, true});
  }
  return candidates;
}

// Returns the number of a candidate.
std::size_t Pick(std::size_t choices) {
  const bool may_deviate = mode != Mode::kSystematic || deviations < bound;
  if (choices == 1 || !may_deviate) return 0;
  std::size_t taken = 0;
  if (mode == Mode::kReplay) {
    const auto found = replayed.find(step);
    if (found != replayed.end()) taken = found->second;
  } else if (mode == Mode::kRandom) {
    if (generator() % 4 == 0) taken = generator() % choices;
  } else if (decisions < plan.size()) {
    taken = plan[decisions].taken;
    const bool is_planned = plan[decisions].step == step && plan[decisions].choices == choices;
    if (!is_planned) Fail("the schedule does not determine the run");
  }
  if (decisions == plan.size()) plan.push_back({step, taken, choices});
  ++decisions;
  if (taken != 0) ++deviations;
  return taken;
}

// Returns when this thread goes on.
void Decide() {
  if (++step > kMostSteps) Fail("the threads do not come to an end");
  const auto candidates = FindCandidates();
  const auto [next, times_out] = candidates[Pick(candidates.size())];
  next->has_timed_out = times_out;
  if (times_out) time_now = std::max(time_now, next->wait.end);
  next->wait = {};
  if (next == self) return;
  if (mode == Mode::kReplay) {
    std::fprintf(stderr, "step %zu: a thread is left at\n", step);
    __sanitizer_print_stack_trace();
  }
  const bool is_going_on = !self->has_ended;  // read before the next run can begin
  sem_post(&next->go);
  if (is_going_on) sem_wait(&self->go);
}

// Returns false if the time is over.
bool WaitFor(const Wait& wait) {
  const Hidden hidden;
  self->wait = wait;
  Decide();
  return !self->has_timed_out;
}

void Join(Thread& thread) {
  {
    const Hidden hidden;
    while (!thread.has_ended) WaitFor({"the end of thread", &thread});
  }
  __tsan_acquire(&thread);
}

void JoinAll() {
  for (std::size_t i = 1; i < count; ++i) Join(*threads[i]);
}

void RunThread(Thread& thread) {
  self = &thread;
  while (true) {
    {
      const Hidden hidden;
      sem_wait(&thread.go);
      thread.id = std::this_thread::get_id();
    }
    __tsan_acquire(&thread);
    std::exchange(thread.function, nullptr)();
    __tsan_release(&thread);
    const Hidden hidden;
    thread.has_ended = true;
    EndWaitsFor(&thread);
    Decide();
  }
}

Thread* AddThread(std::function<void()> function) {
  const Hidden hidden;
  if (count == threads.size()) {
    Thread& added = *threads.emplace_back(std::make_unique<Thread>());
    sem_init(&added.go, 0, 0);
    if (count != 0) std::thread(RunThread, std::ref(added)).detach();
  }
  Thread& thread = *threads[count++];
  thread.function = std::move(function);
  thread.has_ended = false;
  thread.wait = {};
  return &thread;
}

void Run(const std::function<void()>& scenario) {
  time_now = kStart;
  step = decisions = deviations = count = 0;
  if (mode != Mode::kSystematic) plan.clear();
  self = AddThread(nullptr);
  scenario();
  JoinAll();
  self = nullptr;
}

// Returns whether all schedules with at most `bound` deviations have been run.
bool RunAll(const std::function<void()>& scenario, Time end, std::size_t& runs) {
  plan.clear();
  while (std::chrono::steady_clock::now() < end) {
    Run(scenario);
    ++runs;
    while (!plan.empty() && ++plan.back().taken == plan.back().choices) plan.pop_back();
    if (plan.empty()) return true;
  }
  return false;
}

void Replay(const std::string& schedule, const std::function<void()>& scenario) {
  std::istringstream line(schedule);
  std::string name;
  std::getline(line, name, ':');
  if (name != scenario_name) return;
  char separator = 0;
  for (std::size_t at = 0; line >> at >> separator >> replayed[at]; line >> separator) {
  }
  mode = Mode::kReplay;
  Run(scenario);
}

}  // namespace

void Explore(const std::string& name, Timeouts timeouts, const std::function<void()>& scenario) {
  std::signal(SIGABRT, [](int) { Fail("it aborts"); });
  __sanitizer_set_death_callback(PrintSchedule);
  scenario_name = name;
  its_timeouts = timeouts;
  mode = Mode::kSystematic;
  bound = 0;
  plan.clear();
  Run(scenario);  // what the process has one of exists from now on
  if (const char* const line = std::getenv("ZORVIX_SCHEDULE")) return Replay(line, scenario);
  const auto begin = std::chrono::steady_clock::now();
  std::size_t runs = 0;
  while (bound <= kMostDeviations && RunAll(scenario, begin + kSystematicTime, runs)) ++bound;
  std::printf("%zu schedules, all with fewer than %zu deviations", runs, bound);
  if (bound <= kMostDeviations) {
    mode = Mode::kRandom;
    const auto end = std::chrono::steady_clock::now() + kRandomTime;
    for (runs = 0; std::chrono::steady_clock::now() < end; ++runs) Run(scenario);
    std::printf(", and %zu random ones", runs);
  }
  std::printf("\n");
}

void Expect(bool is_kept, const char* law) {
  if (!is_kept) Fail(law);
}

void InParallel(std::initializer_list<std::function<void()>> functions) {
  for (const auto& function : functions) thread(function).detach();
  JoinAll();
}

void Pause() {
  const Hidden hidden;
  if (self != nullptr) Decide();
}

void LetOthersGoOn() {
  const Hidden hidden;
  WaitFor({"others", nullptr, nullptr, false, time_now + std::chrono::milliseconds(1), true});
}

void mutex::lock() {
  if (self != nullptr) WaitFor({"mutex", this, this, true});
  __tsan_acquire(this);
  is_held = true;
}

void mutex::unlock() {
  is_held = false;
  __tsan_release(this);
}

std::cv_status condition_variable::wait_until(std::unique_lock<mutex>& lock, Time end) {
  Pause();
  mutex& its_mutex = *lock.mutex();
  its_mutex.unlock();
  const bool is_in_time = WaitFor({"condition", this, &its_mutex, false, end, true});
  __tsan_acquire(&its_mutex);
  its_mutex.is_held = true;
  return is_in_time ? std::cv_status::no_timeout : std::cv_status::timeout;
}

void condition_variable::notify_all() {
  Pause();
  const Hidden hidden;
  EndWaitsFor(this);
}

Thread* thread::Start(std::function<void()> function) {
  Thread* const added = AddThread(std::move(function));
  __tsan_release(added);
  return added;
}

thread::id thread::get_id() const {
  const Hidden hidden;
  return joinable() ? thread_->id : id();
}

void thread::join() { Join(*thread_.release()); }

void this_thread::sleep_for(std::chrono::nanoseconds duration) {
  const Hidden hidden;
  WaitFor({"time", nullptr, nullptr, false, time_now + duration});
}

chrono::steady_clock::time_point chrono::steady_clock::now() {
  const Hidden hidden;
  return time_now += std::chrono::nanoseconds(1);
}

}  // namespace schedule

extern "C" const char* __tsan_default_options() { return "halt_on_error=1"; }

// The mutexes of the bridge: a thread may be left in a destructor that the bridge calls under one.
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) {
  static const auto real =
      reinterpret_cast<decltype(&pthread_mutex_lock)>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  if (schedule::self == nullptr) return real(mutex);
  while (pthread_mutex_trylock(mutex) != 0) schedule::WaitFor({"a mutex of the bridge", mutex});
  return 0;
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) {
  static const auto real =
      reinterpret_cast<decltype(&pthread_mutex_unlock)>(dlsym(RTLD_NEXT, "pthread_mutex_unlock"));
  const int result = real(mutex);
  const schedule::Hidden hidden;
  if (schedule::self != nullptr) schedule::EndWaitsFor(mutex);
  return result;
}
