// The part of Android's <android/log.h> that Zorvix and its users need.
#ifndef ZORVIX_HOST_ANDROID_LOG_H_
#define ZORVIX_HOST_ANDROID_LOG_H_

enum android_LogPriority {
  ANDROID_LOG_VERBOSE = 2,
  ANDROID_LOG_DEBUG,
  ANDROID_LOG_INFO,
  ANDROID_LOG_WARN,
  ANDROID_LOG_ERROR,
  ANDROID_LOG_FATAL,
};

// Prints one line, "PRIORITY/TAG: text", to stderr. Any thread may call it; lines do not mix.
extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((__format__(__printf__, 3, 4)));

#endif  // ZORVIX_HOST_ANDROID_LOG_H_
