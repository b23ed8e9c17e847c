#include "log_capture.h"

#include <zorvix/zorvix.h>

#include <utility>

namespace {

struct Captured {
  std::mutex mutex;
  std::condition_variable changed;
  Lines lines;
  std::string held;
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

extern "C" ZORVIX_EXPORT int __android_log_print(int priority, const char* tag, const char* format,
                                                 ...) {
  std::va_list arguments;
  va_start(arguments, format);
  auto line = std::string("foreign: ") + tag + " " + format;
  if (line == "foreign: [BRIDGE] %s:%d: %s") {
    const char* const path = va_arg(arguments, const char*);
    line = "??VDIWEF"[priority & 7] + Origin(path, va_arg(arguments, int)) + ": ";
    line += va_arg(arguments, const char*);
  }
  va_end(arguments);
  AddLine(line);
  return 1;
}

void AddLine(const std::string& line) {
  std::unique_lock lock(Log().mutex);
  Log().lines.push_back(line);
  Log().changed.notify_all();
  Log().changed.wait(lock, [&] { return Log().held.empty() || Count({line}, Log().held) == 0; });
}

Lines TakeLog() {
  const std::lock_guard lock(Log().mutex);
  return std::exchange(Log().lines, {});
}

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
  std::size_t count = 0;
  for (const auto& line : log) count += line.find(text) != std::string::npos;
  return count;
}
