// Inboxes: each callable is invoked on the thread that its owner chooses, and on no other.
#include <poll.h>
#include <unistd.h>
#include <zorvix/typed.h>

#include <chrono>
#include <cstdio>
#include <thread>

// What modules would share.
inline constexpr zorvix::Topic<int> kSamples{"samples"};
inline constexpr zorvix::Service<int, int> kSquare{"square"};

thread_local const char* thread_name = "a thread without a name";

void Print(const char* what, int number) {
  std::printf("%s %d on %s\n", what, number, thread_name);
}

void PublishSamples() {
  thread_name = "the sensor's thread";
  const zorvix::Publisher samples(kSamples);
  for (const int number : {1, 2, 3}) {
    Print("published: sample", number);
    samples.Publish(number);
  }
}

// Processes messages and requests until `end` is closed.
void RunMainLoop(zorvix::Inbox& inbox, int end) {
  pollfd descriptors[] = {{inbox.fd(), POLLIN, 0}, {end, POLLIN, 0}};
  while (descriptors[1].revents == 0) {
    poll(descriptors, 2, -1);
    inbox.Drain();
  }
}

int main() try {
  thread_name = "the main thread";
  int shown = 0;
  int stored = 0;
  int squared = 0;

  // Drained by the main loop. Of the samples that arrive between two drains, it shows the latest.
  zorvix::Inbox main_inbox;
  const auto show = [&](int sample) {
    Print("shown: sample", sample);
    shown += sample;
  };
  const zorvix::Subscriber showing(kSamples, show, main_inbox, zorvix::KeepLast{1});

  // Drained by a thread of its own, which stores every sample.
  zorvix::Inbox store_inbox;
  store_inbox.Post([] { thread_name = "the store's thread"; });
  const auto store = [&](int sample) {
    Print("stored: sample", sample);
    stored = 10 * stored + sample;
  };
  const zorvix::Subscriber storing(kSamples, store, store_inbox, zorvix::KeepAll());
  zorvix::InboxThread store_thread(store_inbox);

  // Answers in drains of the main loop, whichever thread calls.
  const auto compute = [](int side) {
    Print("computed: the square of", side);
    return side * side;
  };
  const zorvix::Server square(kSquare, compute, main_inbox);

  std::thread(PublishSamples).join();

  int pipe_ends[2];
  if (pipe(pipe_ends) != 0) return 1;
  std::thread caller([&] {
    thread_name = "the caller's thread";
    squared = zorvix::Client(kSquare).Call(7).value_or(0);  // blocks until the main loop answers
    Print("answered: it is", squared);
    close(pipe_ends[1]);
  });
  RunMainLoop(main_inbox, pipe_ends[0]);
  caller.join();

  const bool all_stored = store_thread.Stop(std::chrono::seconds(10));
  return all_stored && shown == 3 && stored == 123 && squared == 49 ? 0 : 1;
} catch (const std::exception& error) {  // thrown by fd, if no descriptor can be created
  std::fprintf(stderr, "inbox: %s\n", error.what());
  return 1;
}
