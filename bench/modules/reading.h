// What the modules share.
#ifndef ZORVIX_BENCH_READING_H_
#define ZORVIX_BENCH_READING_H_

#include <zorvix/topic.h>

#include <string>

struct Reading {
  std::string sensor;
  double value = 0;
};

const zorvix::Topic<Reading> kReadings{"readings"};

#endif  // ZORVIX_BENCH_READING_H_
