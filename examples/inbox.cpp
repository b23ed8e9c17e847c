// Inboxes: each callable runs on the thread that its owner chooses, and nowhere else.
#include <poll.h>
#include <unistd.h>
#include <zorvix/typed.h>

#include <cstdio>

// What modules would share. The answer comes later, so the one who asks gets a future of it.
const zorvix::Topic<int> kSamples{"samples"};
const zorvix::Service<int, std::shared_future<int>> kSquare{"square"};

thread_local const char* here = "a thread without a name";

// Prints a number, and returns it.
int Say(const char* what, int number) {
  std::printf("%s %d on %s\n", what, number, here);
  return number;
}

int main() try {
  here = "the main thread";
  int shown = 0, stored = 0, squared = 0;

  // Drained by the loop below. Of what comes while that is elsewhere the newest is enough.
  zorvix::Inbox main_inbox;
  const auto show = [&](int sample) { shown += Say("shown: sample", sample); };
  const zorvix::Subscriber showing(kSamples, show, main_inbox, zorvix::KeepLast{1});

  // Drained by a thread of its own, which keeps all.
  zorvix::Inbox store;
  store.Post([] { here = "the store's thread"; });
  const auto keep = [&](int sample) { stored = 10 * stored + Say("stored: sample", sample); };
  const zorvix::Subscriber storing(kSamples, keep, store);
  std::optional<zorvix::InboxThread> store_thread(store);

  // Called on any thread, but worked out on the main one.
  const zorvix::Server square(kSquare, [&](int side) {
    const auto work = std::make_shared<std::packaged_task<int()>>(
        [=] { return Say("worked out: the square of", side) * side; });
    main_inbox.Post([work] { (*work)(); });
    return work->get_future().share();
  });

  std::thread([] {
    here = "the sensor's thread";
    const zorvix::Publisher samples(kSamples);
    for (int number : {1, 2, 3}) samples.Publish(Say("published: sample", number));
  }).join();

  // The loop waits for two descriptors: one of the program's own, and the inbox's.
  int end[2];
  if (pipe(end) != 0) return 1;
  pollfd ready[] = {{main_inbox.fd(), POLLIN, 0}, {end[0], POLLIN, 0}};
  std::thread caller([&] {
    here = "the caller's thread";
    const auto answer = zorvix::Client(kSquare).Call(7);
    if (answer) squared = Say("answered: it is", answer->get());
    close(end[1]);
  });
  for (; ready[1].revents == 0; main_inbox.Drain()) poll(ready, 2, -1);
  caller.join();
  store_thread.reset();  // what waits has been stored then
  return shown == 3 && stored == 123 && squared == 49 ? 0 : 1;
} catch (const std::exception& error) {  // of fd, when there is no descriptor to be had
  std::fprintf(stderr, "inbox: %s\n", error.what());
  return 1;
}
