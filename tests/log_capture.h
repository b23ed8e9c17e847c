// Captures the log. The test executables define and export __android_log_print, so every line that
// the library, the handles and the tests log is stored here. All functions are thread-safe.
#ifndef ZORVIX_TESTS_LOG_CAPTURE_H_
#define ZORVIX_TESTS_LOG_CAPTURE_H_

#include <cstddef>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;

// Returns and forgets the lines captured since the last call. A line is "E: text", where E is the
// letter of its priority. Lines from other files than zorvix.cpp name their origin:
// "E(zorvix.h): text" for the library's header, "E(file.cpp:12): text" for all other files. A line
// with a tag or outer format that is not the library's begins with "foreign: ".
Lines TakeLog();

// Whether this thread is capturing a line that is logged, for which it allocates.
extern thread_local bool is_capturing;

// Captures `line` as if it had been logged.
void AddLine(const std::string& line);

// Blocks until `count` lines that contain `text` have been captured since the last TakeLog.
// After 30 s it ends the process; the failure names the text and the lines captured so far.
void WaitForLog(const std::string& text, std::size_t count = 1);

// Blocks every thread that logs a line containing `text`, after the line has been captured, until
// the next call. An empty text releases all threads.
void HoldLog(const std::string& text);

// Returns how many lines of `log` contain `text`.
std::size_t Count(const Lines& log, const std::string& text);

#endif  // ZORVIX_TESTS_LOG_CAPTURE_H_
