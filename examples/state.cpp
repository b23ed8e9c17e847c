// A state: early and late watchers get the latest value.
#include <zorvix/state.h>

#include <cstdio>

// What modules would share.
struct Settings {
  std::string theme;
  int volume;
};
const zorvix::State<Settings> kSettings{"settings"};

void WaitForSettings() {
  const zorvix::Watcher settings(kSettings);
  const auto first = settings.WaitFor(std::chrono::seconds(10));
  std::printf("%-9s waited for %s\n", "early", first ? first->theme.c_str() : "nothing");
}

int main() {
  std::string received;
  const auto print = [&received](const char* watcher) {
    return [&received, watcher](const Settings& settings) {
      std::printf("%-9s %s, volume %d\n", watcher, settings.theme.c_str(), settings.volume);
      received += watcher + (" " + std::to_string(settings.volume)) + ", ";
    };
  };

  // Is created before there is a value, perhaps even before the holder.
  std::thread early(WaitForSettings);
  zorvix::Holder settings(kSettings);
  settings.Set({"light", 1});
  settings.Set({"dark", 2});
  early.join();

  // Its callable has been invoked with the latest value when the constructor returns.
  const zorvix::Watcher late(kSettings, print("late"));
  // Its callable is invoked in drains of the inbox, with the latest value only.
  zorvix::Inbox frame;
  const zorvix::Watcher drawn(kSettings, print("drawn"), frame);
  settings.Set({"dark", 3});
  settings.Set({"dark", 4});
  frame.Drain();

  // Without a callable, it returns the latest value when it is asked.
  const zorvix::Watcher polled(kSettings);
  std::printf("%-9s volume %d\n", "polled", polled.Newest()->volume);
  return received == "late 2, late 3, late 4, drawn 4, " && polled.Newest()->volume == 4 ? 0 : 1;
}
