#include "log_capture.h"

#include <android/log.h>
#include <zorvix/zorvix.h>  // declares the same function as liblog's header does

#include <algorithm>
#include <cstring>
#include <utility>

static_assert(bridge::kLogInfo == ANDROID_LOG_INFO && bridge::kLogWarn == ANDROID_LOG_WARN &&
              bridge::kLogError == ANDROID_LOG_ERROR);

namespace {

struct Captured {
  std::mutex mutex;
  std::condition_variable changed;
  Lines lines;
  std::string held;
  std::atomic<std::size_t> count{0};
};

Captured& Log() {
  static auto* const log = new Captured;  // outlives the bridge
  return *log;
}

// The library's own files bear paths that begin at the project's folder.
std::string Origin(const std::string& path, int line) {
  if (path == "common/zorvix/zorvix.cpp") return "";
  if (path == "common/zorvix/zorvix.h") return "(zorvix.h)";
  return "(" + path.substr(path.rfind('/') + 1) + ":" + std::to_string(line) + ")";
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int __android_log_print(int priority,
                                                                          const char* tag,
                                                                          const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::string line;
  if (std::strcmp(tag, "[BRIDGE]") != 0 || std::strcmp(format, "%s:%d: %s") != 0) {
    line = std::string("foreign: ") + tag + " " + format;
  } else {
    const char* const path = va_arg(arguments, const char*);
    line = "??VDIWEF"[priority & 7] + Origin(path, va_arg(arguments, int)) + ": ";
    line += va_arg(arguments, const char*);
  }
  va_end(arguments);
  std::unique_lock lock(Log().mutex);
  Log().lines.push_back(line);
  ++Log().count;
  Log().changed.notify_all();
  Log().changed.wait(
      lock, [&] { return Log().held.empty() || line.find(Log().held) == std::string::npos; });
  return 1;
}

Lines TakeLog() {
  const std::lock_guard lock(Log().mutex);
  Log().count = 0;
  return std::exchange(Log().lines, {});
}

std::size_t LogCount() { return Log().count; }

void WaitForLog(const std::string& text, std::size_t count) {
  std::unique_lock lock(Log().mutex);
  Log().changed.wait(lock, [&] { return Count(Log().lines, text) >= count; });
}

void HoldLog(const std::string& text) {
  const std::lock_guard lock(Log().mutex);
  Log().held = text;
  Log().changed.notify_all();
}

std::size_t Count(const Lines& log, const std::string& text) {
  return static_cast<std::size_t>(std::count_if(log.begin(), log.end(), [&](const auto& line) {
    return line.find(text) != std::string::npos;
  }));
}
