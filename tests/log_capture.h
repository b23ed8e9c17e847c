// The test executables define and export __android_log_print, so all that is logged arrives here.
#ifndef ZORVIX_TESTS_LOG_CAPTURE_H_
#define ZORVIX_TESTS_LOG_CAPTURE_H_

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;

// Returns what was logged since the last call, as "E: text" with the priority's letter. A line that
// does not come from zorvix.cpp has its file, too: "E(zorvix.h): text"; one with another tag or
// outer format is marked.
Lines TakeLog();

// Returns the path and line, "path:line", of the last line that was logged.
std::string LastPosition();

// Returns how many lines have been logged since the last TakeLog, fit for polling.
std::size_t LogCount();

// Blocks until `count` lines that contain `text` have been logged since the last TakeLog.
void WaitForLog(const std::string& text, std::size_t count = 1);

#endif  // ZORVIX_TESTS_LOG_CAPTURE_H_
