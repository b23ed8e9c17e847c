// Inspect and SlowLog: which handles there are, what is pending and dropped, and what is slow.
#include <zorvix/inspect.h>
#include <zorvix/typed.h>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

using std::chrono::milliseconds;

// What modules would share.
const zorvix::Topic<int> kFrames{"frames"};

// The longest time that a callable may take: 16 ms are a frame of a screen with 60 Hz.
constexpr milliseconds kFrameTime{16};

// What an app could send with a report of an error.
void PrintProblems() {
  for (const auto& handle : zorvix::Inspect()) {
    const std::string which = handle.kind + " of " + handle.name + " in " + handle.module;
    if (handle.dropped > 0) {
      std::cout << which << ": has dropped " << handle.dropped << " messages\n";
    }
    if (handle.longest > kFrameTime) {
      const auto longest = std::chrono::duration_cast<milliseconds>(handle.longest);
      std::cout << which << ": took " << longest.count() << " ms\n";
    }
  }
}

int main() {
  // Logs each callable that takes longer, and counts invocations, as long as it exists.
  const zorvix::SlowLog slow(kFrameTime);

  zorvix::Inbox encoder;
  const auto encode = [](int) { std::this_thread::sleep_for(milliseconds(20)); };
  const zorvix::Subscriber encoded(kFrames, encode, encoder, zorvix::KeepLast{2});
  const auto show = [](int frame) { std::cout << "shown: frame " << frame << '\n'; };
  const zorvix::Subscriber shown(kFrames, show);

  const zorvix::Publisher camera(kFrames);
  for (int frame = 1; frame <= 5; ++frame) camera.Publish(frame);
  std::cout << "\nFrames are pending:\n" << zorvix::Inspect();

  encoder.Drain();
  std::cout << "\nAfter a drain:\n" << zorvix::Inspect() << '\n';
  PrintProblems();
}
