#include "threads.h"

#include <fstream>

namespace zorvix::detail {

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
