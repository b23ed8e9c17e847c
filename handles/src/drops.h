// What a handle tells of the messages that it drops.
#ifndef ZORVIX_HANDLES_DROPS_H_
#define ZORVIX_HANDLES_DROPS_H_

#include <chrono>
#include <cstddef>
#include <utility>

#include "sync.h"

namespace zorvix::detail {

// Counts drops, and says when a line of the log is due. There are two kinds of lines, that the
// handle drops and how many it has dropped, each at most once a second: what a line does not tell
// is in a later one.
class Drops {
 public:
  // Returns whether to log that the handle drops, which no line has said since it caught up.
  bool Add() {
    ++total_;
    ++untold_;
    if (is_said_) return false;
    is_said_ = IsDue(said_at_);
    return is_said_;
  }
  // To be called when nothing is pending any more. Returns how many drops to log, or 0.
  std::size_t CatchUp() {
    is_said_ = false;
    return untold_ != 0 && IsDue(told_at_) ? End() : 0;
  }
  // To be called when what is pending is discarded. Returns how many drops to log.
  std::size_t End() { return std::exchange(untold_, 0); }

  std::size_t total() const { return total_; }

 private:
  static bool IsDue(Clock::time_point& last) {
    const auto now = CoarseNow();
    if (last != Clock::time_point() && now - last < std::chrono::seconds(1)) return false;
    last = now;
    return true;
  }

  std::size_t total_ = 0;
  std::size_t untold_ = 0;
  bool is_said_ = false;       // that it drops, since it caught up
  Clock::time_point said_at_;  // the last line of each kind
  Clock::time_point told_at_;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_DROPS_H_
