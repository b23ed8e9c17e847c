// What the modules of the demo agree on: the names they meet under and the types they exchange.
#ifndef ZORVIX_EXAMPLES_DEMO_DEMO_H_
#define ZORVIX_EXAMPLES_DEMO_DEMO_H_

#include <zorvix/state.h>

#include <algorithm>
#include <set>

namespace demo {

struct Sample {
  int number;   // from 1 on
  double busy;  // percent of the CPU time since the sample before
  std::thread::id taken_on;
};

// What became of the samples in one place. They are told apart by their numbers: one that comes
// twice or in disorder makes taken + lost exceed the last.
struct Account {
  void Take(const Sample& sample) {
    ++taken;
    lost += std::max(0, sample.number - last - 1);
    last = sample.number;
    threads.insert(std::this_thread::get_id());
  }
  int taken = 0, lost = 0, last = 0;
  std::set<std::thread::id> threads;
};

struct Summary {
  int samples = 0;
  double mean = 0;  // of the samples' busy
};
struct Advice {
  int samples;  // that it is founded on
  std::string text;
};
struct Nothing {};  // a request that says nothing
struct Line {
  std::string who, what;
};

inline const zorvix::Topic<Sample> kSamples{"sample"};
inline const zorvix::Topic<int> kSent{"sent"};  // the number of samples, when the last is sent
inline const zorvix::Topic<Account> kRecorded{"recorded"}, kUploaded{"uploaded"};
inline const zorvix::State<Summary> kSummary{"summary"};
inline const zorvix::Service<Nothing, Advice> kAdvice{"advice"};
inline const zorvix::Topic<Line> kLines{"line"};

// Has the host show a line, on its own thread.
inline void Say(const std::string& who, const std::string& what) {
  zorvix::Publisher(kLines).Publish({who, what});
}

}  // namespace demo

// What each module exports for the host: makes what the module is, which ends with the pointer.
extern "C" __attribute__((visibility("default"))) void ModuleLoad(std::shared_ptr<void>& module);

#endif  // ZORVIX_EXAMPLES_DEMO_DEMO_H_
