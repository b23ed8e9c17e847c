// Inboxes: each callable runs on the thread that its owner chooses.
#include <poll.h>
#include <unistd.h>
#include <zorvix/typed.h>

#include <cstdio>

// What modules would share.
const zorvix::Topic<int> kSamples{"samples"};
const zorvix::Service<int, int> kSquare{"square"};

thread_local const char* thread_name = "a thread without a name";

void Print(const char* event, int number) {
  std::printf("%s %d on %s\n", event, number, thread_name);
}

void PublishSamples() {
  thread_name = "the sensor's thread";
  const zorvix::Publisher samples(kSamples);
  for (const int number : {1, 2, 3}) {
    Print("published: sample", number);
    samples.Publish(number);
  }
}

int AskForSquare(int side) {
  thread_name = "the client's thread";
  const int square = zorvix::Client(kSquare).Call(side).value_or(0);  // blocks until it is answered
  Print("answered: it is", square);
  return square;
}

int main() {
  thread_name = "the main thread";
  int shown = 0;
  std::string stored;
  int square = 0;

  // Drained by the loop below. The main thread needs only the latest sample.
  zorvix::Inbox main_inbox;
  const auto show = [&](int sample) {
    Print("shown: sample", sample);
    shown += sample;
  };
  const zorvix::Subscriber showing(kSamples, show, main_inbox, zorvix::KeepLast{1});

  // Drained by a thread of its own, which gets all samples.
  zorvix::Inbox store;
  store.Post([] { thread_name = "the store's thread"; });
  const auto write = [&](int sample) {
    Print("stored: sample", sample);
    stored += std::to_string(sample);
  };
  const zorvix::Subscriber storing(kSamples, write, store);
  std::optional<zorvix::InboxThread> store_thread(store);

  // Called on any thread, and invoked on the main thread.
  const auto compute = [](int side) {
    Print("computed: the square of", side);
    return side * side;
  };
  const zorvix::Server squares(kSquare, compute, main_inbox);

  std::thread(PublishSamples).join();

  // The loop waits for two descriptors: that of the inbox, and one of the program's own.
  int finished[2];
  if (pipe(finished) != 0) return 1;
  std::thread client([&] {
    square = AskForSquare(7);
    close(finished[1]);
  });
  pollfd descriptors[] = {{main_inbox.fd(), POLLIN, 0}, {finished[0], POLLIN, 0}};
  while (descriptors[1].revents == 0) {
    poll(descriptors, 2, -1);
    main_inbox.Drain();
  }
  client.join();
  store_thread.reset();  // invokes the callable for all pending samples first
  return shown == 3 && stored == "123" && square == 49 ? 0 : 1;
}
