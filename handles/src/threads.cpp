#include "threads.h"

#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <fstream>

namespace zorvix::detail {
namespace {

// The thread of a forked child has an id of its own.
[[maybe_unused]] const int has_handler =
    pthread_atfork(nullptr, nullptr, [] { this_thread_id = 0; });

}  // namespace

void NameThread(std::string_view name) {
  constexpr std::size_t kMostBytes = 15;
  std::size_t size = std::min(name.size(), kMostBytes);
  const auto splits_character = [name](std::size_t at) {
    return at < name.size() && (static_cast<unsigned char>(name[at]) & 0xC0U) == 0x80;
  };
  while (size != 0 && splits_character(size)) --size;
  if (size == 0) return;
  pthread_setname_np(pthread_self(), std::string(name.substr(0, size)).c_str());
}

std::string NameOfThread(int thread) {
  std::string name;
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/comm");
  std::getline(file, name);
  return name;
}

std::string DescribeThread(int thread) {
  return std::to_string(thread) + " (" + NameOfThread(thread) + ")";
}

}  // namespace zorvix::detail
