// For tests with several threads, where no line of the log can tell how far they are.
#ifndef ZORVIX_TESTS_THREADS_H_
#define ZORVIX_TESTS_THREADS_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

// Waits until the condition is true. Returns false if it is still false after 30 s.
template <typename Condition>
bool ComesTrue(const Condition& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

// Gives other threads time to get as far as they can. No test may rely on it.
inline void LetOthersRun() {
  for (int i = 0; i < 300; ++i) std::this_thread::yield();
}

// Calls function() on another thread, and returns its result, once that thread sleeps.
template <typename Function>
auto BeginAndLetSleep(const Function& function) {
  std::atomic<int> id{0};
  auto result = std::async(std::launch::async, [&id, function] {
    id = gettid();
    return function();
  });
  const auto sleeps = [&id] {
    std::ifstream status("/proc/self/task/" + std::to_string(id) + "/stat");
    std::string line;
    return std::getline(status, line) && line.find(") S ") != std::string::npos;
  };
  EXPECT_TRUE(ComesTrue(sleeps));
  return result;
}

// Calls function(0) to function(count - 1) on threads that start together, and waits for them.
template <typename Function>
void OnThreads(int count, const Function& function) {
  std::atomic<int> started{0};
  std::vector<std::future<void>> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    threads.push_back(std::async(std::launch::async, [&, i] {
      for (++started; started < count;) std::this_thread::yield();
      function(i);
    }));
  }
  for (auto& thread : threads) thread.get();
}

// Lets four threads call wait(0) to wait(3), calls `wake`, and expects that all return. Whether all
// wait by then is a matter of luck, mostly good.
template <typename Wait, typename Wake>
void ExpectWakesAll(const Wait& wait, const Wake& wake) {
  constexpr int kThreads = 4;
  std::atomic<int> waiting{0};
  std::atomic<int> woken{0};
  auto threads = std::async(std::launch::async, [&] {
    OnThreads(kThreads, [&](int thread) {
      ++waiting;
      wait(thread);
      ++woken;
    });
  });
  EXPECT_TRUE(ComesTrue([&] { return waiting == kThreads; }));
  LetOthersRun();

  wake();

  if (ComesTrue([&] { return woken == kThreads; })) return;
  ADD_FAILURE() << "only " << woken << " threads have woken up";
  std::abort();  // unwinding would wait for the others
}

#endif  // ZORVIX_TESTS_THREADS_H_
