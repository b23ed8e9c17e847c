// What a presence knows of its counterparts.
#ifndef ZORVIX_HANDLES_MATCH_QUEUE_H_
#define ZORVIX_HANDLES_MATCH_QUEUE_H_

#include <zorvix/presence.h>

#include <cstddef>
#include <memory>
#include <utility>

#include "latest_queue.h"

namespace zorvix::detail {

enum class Change { kArrival, kDeparture };

class MatchQueue final : public LatestQueue<Matched> {
 public:
  MatchQueue(const Endpoint& endpoint, std::shared_ptr<Strand> its_strand, Callable callable)
      : LatestQueue("Presence", endpoint, std::move(its_strand), std::move(callable)) {}

  // Begins with the counterparts that existed when the first change could be added. Those added
  // since then have been counted, but are shown only now.
  void Begin(std::size_t existing) {
    Push([&](Matched& matched) {
      mutex_.AssertHeld();
      has_begun_ = true;
      matched.count += existing;
      matched.arrived += existing;
      return true;
    });
  }
  void Add(Change change) {
    Push([&](Matched& matched) {
      mutex_.AssertHeld();
      if (change == Change::kArrival) {
        ++matched.count;
        ++matched.arrived;
      } else {
        --matched.count;  // may wrap around before the beginning
        ++matched.departed;
      }
      return has_begun_;
    });
  }

 private:
  bool has_begun_ ZORVIX_GUARDED_BY(mutex_) = false;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_MATCH_QUEUE_H_
