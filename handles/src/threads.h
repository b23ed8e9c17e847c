// Threads as the platform's tools name them, and numbers that threads count.
#ifndef ZORVIX_HANDLES_THREADS_H_
#define ZORVIX_HANDLES_THREADS_H_

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

namespace zorvix::detail {

// 0 until this thread has asked for its id. In the thread's static block, where it is found without
// a call, since the library is never unloaded. Android's loader has no room there.
#ifdef __GLIBC__
__attribute__((tls_model("initial-exec")))
#endif
inline thread_local int this_thread_id = 0;

// Returns the id by which debuggers and logs know this thread.
inline int ThisThread() {
  if (this_thread_id == 0) this_thread_id = static_cast<int>(gettid());
  return this_thread_id;
}

// Names the calling thread, for traces and debuggers. The system takes at most 15 bytes: a longer
// name is cut, but not inside a UTF-8 character. An empty name changes nothing.
void NameThread(std::string_view name);

// Returns the name of a thread of this process, or an empty one if there is no such thread.
std::string NameOfThread(int thread);

// Returns such as "4711 (decoder)".
std::string DescribeThread(int thread);

// Remembers the first thread that has asked. A later thread with the same id takes its place.
class FirstThread {
 public:
  bool IsThisThread() {
    const int thread = ThisThread();
    int first = thread_.load(std::memory_order_relaxed);
    if (first == 0 && thread_.compare_exchange_strong(first, thread, std::memory_order_relaxed)) {
      return true;
    }
    return first == thread;
  }

 private:
  std::atomic<int> thread_{0};
};

// A number that threads add to. The first of them does so without an atomic read-modify-write.
class Counter {
 public:
  void Add() {
    if (first_.IsThisThread()) {
      by_first_.store(by_first_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    } else {
      by_others_.fetch_add(1, std::memory_order_relaxed);
    }
  }
  std::uint64_t Get() const {
    return by_first_.load(std::memory_order_relaxed) + by_others_.load(std::memory_order_relaxed);
  }

 private:
  FirstThread first_;
  std::atomic<std::uint64_t> by_first_{0};
  std::atomic<std::uint64_t> by_others_{0};
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_THREADS_H_
