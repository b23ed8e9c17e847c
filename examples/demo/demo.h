// What the modules of the demo share: names and message types.
#ifndef ZORVIX_EXAMPLES_DEMO_DEMO_H_
#define ZORVIX_EXAMPLES_DEMO_DEMO_H_

#include <pthread.h>
#include <zorvix/typed.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <thread>

namespace demo {

struct Sample {
  int number;   // from 1 on
  double busy;  // percent of the CPU time since the previous sample
  std::thread::id sampled_on;
};

// Counts the samples that one subscriber receives. A gap in their numbers counts as dropped. If a
// sample arrives twice or out of order, received + dropped exceeds `last`.
struct Account {
  void Receive(const Sample& sample) {
    ++received;
    dropped += std::max(0, sample.number - last - 1);
    last = sample.number;
    threads.insert(std::this_thread::get_id());
  }
  int received = 0;
  int dropped = 0;
  int last = 0;
  std::set<std::thread::id> threads;
};

struct Summary {
  int samples = 0;
  double mean_busy = 0;
};
struct Advice {
  int samples;  // number of samples that it is based on
  std::string text;
};
struct Nothing {};  // a request without content
struct Line {
  std::string module;
  std::string text;
};

inline constexpr zorvix::Topic<Sample> kSamples{"sample"};
inline constexpr zorvix::Topic<int> kSent{"sent"};  // the number of samples, after the last one
inline constexpr zorvix::Topic<Account> kRecorded{"recorded"};
inline constexpr zorvix::Topic<Account> kUploaded{"uploaded"};
inline constexpr zorvix::State<Summary> kSummary{"summary"};
inline constexpr zorvix::Service<Nothing, Advice> kAdvice{"advice"};
inline constexpr zorvix::Topic<Line> kLines{"line"};

// Publishes a line, which the host prints on its main thread.
inline void Say(const std::string& module, const std::string& text) {
  zorvix::Publisher(kLines).Publish({module, text});
}

// Names the calling thread, for traces and debuggers.
inline void NameThread(const char* name) { pthread_setname_np(pthread_self(), name); }

}  // namespace demo

// Each module exports this function. It creates the module's object, which is destroyed with the
// pointer.
extern "C" __attribute__((visibility("default"))) void ModuleLoad(std::shared_ptr<void>& module);

#endif  // ZORVIX_EXAMPLES_DEMO_DEMO_H_
