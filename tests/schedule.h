// Explores the interleavings of threads.
//
// The mutex, condition variable, atomic, thread and clock below are those of std by name and
// contract. Of the threads that use them one runs at a time, and another one may go on before each
// operation. So these decisions, the schedule, determine a run. Atomics are sequentially consistent
// here; but ThreadSanitizer sees what the program orders, and not that one thread runs after the
// other. Time passes only where all threads wait, or where a wait times out.
#ifndef ZORVIX_TESTS_SCHEDULE_H_
#define ZORVIX_TESTS_SCHEDULE_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace schedule {

// Whether a run may get to where all threads wait, and one of them only until a timeout.
// With kComeLast it may, and no wait times out earlier.
enum class Timeouts { kAreFaults, kAreExpected, kComeLast };
constexpr std::chrono::steady_clock::time_point kStart{std::chrono::hours(1)};  // of each run

// Runs the scenario with the schedules that differ from the plain one, in which a thread runs until
// it has to wait, in at most three places: another thread goes on, or a wait ends early, for no
// reason or at its timeout. If that takes too long, goes on with random schedules. A fault prints
// the schedule and ends the process. ZORVIX_SCHEDULE=... in the environment runs that one only, and
// prints where each thread is left.
void Explore(const std::string& name, Timeouts timeouts, const std::function<void()>& scenario);

// Fails unless the law is kept.
void Expect(bool is_kept, const char* law);

// Calls the functions, each on a thread, and waits for the end of all threads.
void InParallel(std::initializer_list<std::function<void()>> functions);

// Another thread may go on here.
void Pause();
// Others go on here, if there are any.
void LetOthersGoOn();

class mutex {
 public:
  void lock();
  void unlock();

  bool is_held = false;
};

class condition_variable {
 public:
  using Time = std::chrono::steady_clock::time_point;
  void wait(std::unique_lock<mutex>& lock) { wait_until(lock, Time::max()); }
  std::cv_status wait_until(std::unique_lock<mutex>& lock, Time end);
  void notify_all();
};

template <typename Value>
class atomic {
 public:
  static constexpr auto kDefault = std::memory_order_seq_cst;

  atomic(Value value) : value_(value) {}
  Value load(std::memory_order order = kDefault) const { return Paused(value_).load(order); }
  void store(Value value, std::memory_order order = kDefault) {
    Paused(value_).store(value, order);
  }
  Value exchange(Value value) { return Paused(value_).exchange(value); }
  bool compare_exchange_strong(Value& expected, Value desired) {
    return Paused(value_).compare_exchange_strong(expected, desired);
  }
  Value fetch_add(Value value) { return Paused(value_).fetch_add(value); }
  Value fetch_sub(Value value) { return Paused(value_).fetch_sub(value); }
  operator Value() const { return Paused(value_).load(); }
  Value operator=(Value value) { return Paused(value_) = value; }
  Value operator+=(Value value) { return Paused(value_) += value; }
  Value operator++() { return ++Paused(value_); }
  Value operator--() { return --Paused(value_); }

 private:
  template <typename Any>
  static Any& Paused(Any& value) {
    Pause();
    return value;
  }
  std::atomic<Value> value_;
};

struct Thread;

class thread {
 public:
  using id = std::thread::id;

  thread() = default;
  template <typename Function, typename... Arguments>
  explicit thread(Function function, Arguments... arguments)
      : thread_(Start([=] { std::invoke(function, arguments...); })) {}
  bool joinable() const { return thread_ != nullptr; }
  id get_id() const;
  void join();
  void detach() { static_cast<void>(thread_.release()); }

 private:
  struct Terminate {
    void operator()(Thread*) const { std::terminate(); }
  };
  static Thread* Start(std::function<void()> function);
  std::unique_ptr<Thread, Terminate> thread_;
};

namespace this_thread {
inline thread::id get_id() { return std::this_thread::get_id(); }
void sleep_for(std::chrono::nanoseconds duration);
}  // namespace this_thread

namespace chrono {
struct steady_clock : std::chrono::steady_clock {
  static time_point now();
};
}  // namespace chrono

}  // namespace schedule

#endif  // ZORVIX_TESTS_SCHEDULE_H_
