#include "android/log.h"

#include <cstdarg>
#include <cstdio>

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  char text[2048];
  std::va_list arguments;
  va_start(arguments, fmt);
  std::vsnprintf(text, sizeof text, fmt, arguments);
  va_end(arguments);
  char letter = '?';
  if (prio >= ANDROID_LOG_VERBOSE && prio <= ANDROID_LOG_FATAL) {
    letter = "VDIWEF"[prio - ANDROID_LOG_VERBOSE];
  }
  return std::fprintf(stderr, "%c/%s: %s\n", letter, tag, text);
}
