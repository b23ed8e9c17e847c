// Prints on the host's main thread: lines from modules, and the latest sample.
#ifndef ZORVIX_EXAMPLES_DEMO_SCREEN_H_
#define ZORVIX_EXAMPLES_DEMO_SCREEN_H_

#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "demo.h"

// All its subscribers use one inbox. Only the thread that drains the inbox uses the members, so no
// mutex is needed.
class Screen {
 public:
  // Prints the pending lines, and the latest sample: in place on a terminal, else every 20 samples.
  void Update() {
    inbox_.Drain();
    if (sample.number < next_to_print_) return;
    next_to_print_ = sample.number + (terminal ? 0 : 20);
    const int bar_length = static_cast<int>(sample.busy) / 10;
    std::printf("%ssample %3d  CPU %3.0f %% [%-10.*s]  recorded %3d  uploaded %2d, dropped %2d%s",
                terminal ? "\r" : "", sample.number, sample.busy, bar_length, "##########",
                recorded.received, uploaded.received, uploaded.dropped, terminal ? "\033[K" : "\n");
    std::fflush(stdout);
  }

  // Updates until the recorder has received the sample of this number.
  void UpdateUntil(int number) {
    while (recorded.last < number) {
      inbox_.Wait();
      Update();
    }
  }

  const bool terminal = isatty(STDOUT_FILENO) == 1;
  int sent = 0;
  demo::Sample sample{};
  demo::Account shown;
  demo::Account recorded;
  demo::Account uploaded;

 private:
  void Print(const demo::Line& line) {
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start_;
    std::printf("%s%5.1f s  %-8s  %s\n", terminal ? "\r\033[K" : "", time.count(),
                line.module.c_str(), line.text.c_str());
    std::fflush(stdout);
  }

  void Receive(const demo::Sample& latest) {
    shown.Receive(latest);
    sample = latest;
  }

  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  int next_to_print_ = 1;  // number of a sample
  zorvix::Inbox inbox_{"screen"};
  zorvix::Subscriber<demo::Line> lines_{demo::kLines, [this](auto& line) { Print(line); }, inbox_};
  // The screen needs only the latest value of these.
  zorvix::Subscriber<demo::Sample> samples_{
      demo::kSamples, [this](auto& latest) { Receive(latest); }, inbox_, zorvix::KeepLast{1}};
  zorvix::Subscriber<demo::Account> recorded_{
      demo::kRecorded, [this](auto& account) { recorded = account; }, inbox_, zorvix::KeepLast{1}};
  zorvix::Subscriber<demo::Account> uploaded_{
      demo::kUploaded, [this](auto& account) { uploaded = account; }, inbox_, zorvix::KeepLast{1}};
  zorvix::Subscriber<int> sent_{demo::kSent, [this](int number) { sent = number; }, inbox_};
};

#endif  // ZORVIX_EXAMPLES_DEMO_SCREEN_H_
