// Comes late, when the summaries that it needs have long been made, and yet has the newest.
#include <cmath>

#include "demo.h"

namespace {

class Adviser {
 public:
  Adviser() {
    const auto number = std::to_string(Advise().samples);
    demo::Say("adviser", "loaded late: has the newest summary at once, of " + number + " samples");
  }

 private:
  // Runs on the thread of whoever asks.
  demo::Advice Advise() const {
    const auto newest = summary_.Newest();
    if (!newest) return {0, "nobody has made a summary"};
    const auto busy = std::to_string(std::lround(newest->mean)) + " % busy";
    return {newest->samples,
            (newest->mean < 50 ? "build now" : "build later") + (", the CPUs are " + busy)};
  }

  const zorvix::Watcher<demo::Summary> summary_{demo::kSummary};
  const zorvix::Server<demo::Nothing, demo::Advice> advising_{demo::kAdvice,
                                                              [this](auto&) { return Advise(); }};
};

}  // namespace

void ModuleLoad(std::shared_ptr<void>& module) { module = std::make_shared<Adviser>(); }
