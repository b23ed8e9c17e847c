// The test executables define and export __android_log_print, so all that is logged arrives here.
#ifndef ZORVIX_TESTS_LOG_CAPTURE_H_
#define ZORVIX_TESTS_LOG_CAPTURE_H_

#include <cstddef>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;

// Returns what was logged since the last call, as "E: text" with the priority's letter. A line that
// does not come from zorvix.cpp says from where: "E(zorvix.h): text" if it is the library's, and
// "E(FILE:LINE): text" if not. One with another tag or outer format is marked.
Lines TakeLog();

// Adds a line to them, as if it had been logged.
void AddLine(const std::string& line);

// Blocks until `count` lines that contain `text` have been logged since the last TakeLog.
void WaitForLog(const std::string& text, std::size_t count = 1);

// From now on threads that log a line that contains `text` block, once the line can be seen here.
// No text lets them go on.
void HoldLog(const std::string& text);

std::size_t Count(const Lines& log, const std::string& text);

#endif  // ZORVIX_TESTS_LOG_CAPTURE_H_
