// For tests with several threads, where no line of the log can tell how far they are.
#ifndef ZORVIX_TESTS_THREADS_H_
#define ZORVIX_TESTS_THREADS_H_

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <utility>

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

// Calls the function on a thread of its own.
template <typename Function, typename... Arguments>
auto InBackground(Function function, Arguments... arguments) {
  return std::async(std::launch::async, std::move(function), std::move(arguments)...);
}

#endif  // ZORVIX_TESTS_THREADS_H_
