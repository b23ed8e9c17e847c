// Is loaded after many summaries have been set, and still reads the latest one.
#include <cmath>

#include "demo.h"

namespace {

class Adviser {
 public:
  Adviser() {
    const auto number = std::to_string(Advise().samples);
    demo::Say("adviser", "loaded late, and reads the latest summary, of " + number + " samples");
  }

 private:
  // Runs on the client's thread.
  demo::Advice Advise() const {
    const auto latest = summary_.Latest();
    if (!latest) return {0, "there is no summary yet"};
    const std::string advice = latest->mean_busy < 50 ? "build now" : "build later";
    const auto busy = std::to_string(std::lround(latest->mean_busy));
    return {latest->samples, advice + ", the CPUs are " + busy + " % busy"};
  }

  const zorvix::Watcher<demo::Summary> summary_{demo::kSummary};
  const zorvix::Server<demo::Nothing, demo::Advice> advising_{demo::kAdvice,
                                                              [this](auto&) { return Advise(); }};
};

}  // namespace

void ModuleLoad(std::shared_ptr<void>& module) { module = std::make_shared<Adviser>(); }
