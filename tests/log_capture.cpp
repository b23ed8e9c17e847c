#include "log_capture.h"

#include <android/log.h>
#include <zorvix/zorvix.h>  // declares the same function as liblog's header does

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <utility>

static_assert(bridge::kLogInfo == ANDROID_LOG_INFO && bridge::kLogWarn == ANDROID_LOG_WARN &&
              bridge::kLogError == ANDROID_LOG_ERROR);

namespace {

struct Captured {
  std::mutex mutex;
  std::condition_variable changed;
  Lines lines;
  std::string position;
  std::atomic<std::size_t> count{0};
};

Captured& Log() {
  static auto* const log = new Captured;  // outlives the bridge
  return *log;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int __android_log_print(int priority,
                                                                          const char* tag,
                                                                          const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::string line, position;
  if (std::strcmp(tag, "[BRIDGE]") != 0 || std::strcmp(format, "%s:%d: %s") != 0) {
    line = std::string("foreign: ") + tag + " " + format;
  } else {
    const std::string path = va_arg(arguments, const char*);
    position = path + ":" + std::to_string(va_arg(arguments, int));
    const std::string file = path.substr(path.rfind('/') + 1);
    line = "??VDIWEF"[priority & 7];
    line += (file == "zorvix.cpp" ? "" : "(" + file + ")") + ": " + va_arg(arguments, const char*);
  }
  va_end(arguments);
  const std::lock_guard lock(Log().mutex);
  Log().lines.push_back(line);
  Log().position = position;
  ++Log().count;
  Log().changed.notify_all();
  return 1;
}

Lines TakeLog() {
  const std::lock_guard lock(Log().mutex);
  Log().count = 0;
  return std::exchange(Log().lines, {});
}

std::size_t LogCount() { return Log().count; }

std::string LastPosition() {
  const std::lock_guard lock(Log().mutex);
  return Log().position;
}

void WaitForLog(const std::string& text, std::size_t count) {
  std::unique_lock lock(Log().mutex);
  Log().changed.wait(lock, [&] {
    return static_cast<std::size_t>(std::count_if(
               Log().lines.begin(), Log().lines.end(),
               [&](const auto& line) { return line.find(text) != std::string::npos; })) >= count;
  });
}
