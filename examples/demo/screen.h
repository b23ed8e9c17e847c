// What the host shows on its main thread: lines that modules say, and under them the newest values.
#ifndef ZORVIX_EXAMPLES_DEMO_SCREEN_H_
#define ZORVIX_EXAMPLES_DEMO_SCREEN_H_

#include <unistd.h>

#include <cstdio>

#include "demo.h"

// All that it subscribes to waits in one inbox, so the thread that drains it is the only one that
// touches what is in here, and there is no mutex.
class Screen {
 public:
  // Shows what has come.
  void Update() {
    inbox_.Drain();
    if (sample.number < next_) return;
    next_ = sample.number + (terminal ? 0 : 20);
    std::printf("%ssample %3d  CPU %3.0f %% [%-10.*s]  recorded %3d  uploaded %2d, lost %2d%s",
                terminal ? "\r" : "", sample.number, sample.busy,
                static_cast<int>(sample.busy) / 10, "##########", recorded.taken, uploaded.taken,
                uploaded.lost, terminal ? "\033[K" : "\n");
    std::fflush(stdout);
  }

  // Shows what comes until the recorder has got that far.
  void UpdateUntil(int number) {
    for (; recorded.last < number; Update()) inbox_.Wait(std::chrono::milliseconds(-1));
  }

  const bool terminal = isatty(STDOUT_FILENO) == 1;
  int sent = 0;
  demo::Sample sample{};
  demo::Account shown, recorded, uploaded;

 private:
  void Show(const demo::Line& line) {
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start_;
    std::printf("%s%5.1f s  %-8s  %s\n", terminal ? "\r\033[K" : "", time.count(), line.who.c_str(),
                line.what.c_str());
    std::fflush(stdout);
  }

  void Take(const demo::Sample& newest) {
    shown.Take(newest);
    sample = newest;
  }

  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  int next_ = 1;  // sample that is worth a line
  zorvix::Inbox inbox_;
  zorvix::Subscriber<demo::Line> lines_{demo::kLines, [this](auto& line) { Show(line); }, inbox_};
  // Of values that are shown in place the newest is enough.
  zorvix::Subscriber<demo::Sample> samples_{demo::kSamples, [this](auto& it) { Take(it); }, inbox_,
                                            zorvix::KeepLast{1}};
  zorvix::Subscriber<demo::Account> recorded_{
      demo::kRecorded, [this](auto& account) { recorded = account; }, inbox_, zorvix::KeepLast{1}};
  zorvix::Subscriber<demo::Account> uploaded_{
      demo::kUploaded, [this](auto& account) { uploaded = account; }, inbox_, zorvix::KeepLast{1}};
  zorvix::Subscriber<int> sent_{demo::kSent, [this](int number) { sent = number; }, inbox_};
};

#endif  // ZORVIX_EXAMPLES_DEMO_SCREEN_H_
