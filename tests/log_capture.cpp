#include "log_capture.h"

#include <gtest/gtest.h>
#include <zorvix/zorvix.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

namespace {

constexpr std::chrono::seconds kWaitLimit{30};
constexpr std::string_view kPriorityLetters = "??VDIWEF";

struct Capture {
  std::mutex mutex;
  std::condition_variable changed;
  Lines lines;
  std::string held_text;
};

Capture& TheCapture() {
  static auto* const capture = new Capture;  // never destroyed, since the bridge logs until exit
  return *capture;
}

bool Contains(const std::string& line, const std::string& text) {
  return line.find(text) != std::string::npos;
}

// The library is compiled with paths that begin at the project's folder.
std::string Origin(const std::string& path, int line) {
  if (path == "common/zorvix/zorvix.cpp") return "";
  if (path == "common/zorvix/zorvix.h") return "(zorvix.h)";
  return "(" + path.substr(path.rfind('/') + 1) + ":" + std::to_string(line) + ")";
}

}  // namespace

thread_local bool is_capturing = false;

extern "C" ZORVIX_EXPORT int __android_log_print(int priority, const char* tag, const char* format,
                                                 ...) {
  const struct Capturing {
    Capturing() { is_capturing = true; }
    ~Capturing() { is_capturing = false; }
  } capturing;
  if (tag != std::string("[BRIDGE]") || format != std::string("%s:%d: %s")) {
    AddLine(std::string("foreign: ") + tag + " " + format);
    return 1;
  }
  std::va_list arguments;
  va_start(arguments, format);
  const char* const path = va_arg(arguments, const char*);
  const int line = va_arg(arguments, int);
  const char* const message = va_arg(arguments, const char*);
  va_end(arguments);
  const char letter = kPriorityLetters.at(static_cast<std::size_t>(priority));
  AddLine(letter + Origin(path, line) + ": " + message);
  return 1;
}

Lines TakeLog() {
  const std::lock_guard lock(TheCapture().mutex);
  return std::exchange(TheCapture().lines, {});
}

void AddLine(const std::string& line) {
  auto& [mutex, changed, lines, held_text] = TheCapture();
  std::unique_lock lock(mutex);
  lines.push_back(line);
  changed.notify_all();
  while (!held_text.empty() && Contains(line, held_text)) changed.wait(lock);
}

void WaitForLog(const std::string& text, std::size_t count) {
  auto& capture = TheCapture();
  std::unique_lock lock(capture.mutex);
  const auto captured = [&] { return Count(capture.lines, text) >= count; };
  if (capture.changed.wait_for(lock, kWaitLimit, captured)) return;
  std::string log;
  for (const auto& line : capture.lines) log += "\n" + line;
  ADD_FAILURE() << "Waited " << kWaitLimit.count() << " s for " << count << " lines with \"" << text
                << "\". The log so far:" << log;
  std::abort();  // unwinding would wait for threads that wait for this one
}

void HoldLog(const std::string& text) {
  const std::lock_guard lock(TheCapture().mutex);
  TheCapture().held_text = text;
  TheCapture().changed.notify_all();
}

std::size_t Count(const Lines& log, const std::string& text) {
  return static_cast<std::size_t>(std::count_if(
      log.begin(), log.end(), [&](const auto& line) { return Contains(line, text); }));
}
