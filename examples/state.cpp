// A state: whoever comes, and whenever, has the newest value.
#include <zorvix/state.h>

#include <cstdio>

// What modules would share.
struct Settings {
  std::string theme;
  int volume;
};
const zorvix::State<Settings> kSettings{"settings"};

int main() {
  std::string seen;
  const auto print = [&seen](const char* who) {
    return [&seen, who](const Settings& settings) {
      std::printf("%-9s %s, volume %d\n", who, settings.theme.c_str(), settings.volume);
      seen += who[0] + std::to_string(settings.volume) + ' ';
    };
  };

  // Comes before there is anything to see, and waits for it.
  std::thread early([] {
    const zorvix::Watcher settings(kSettings);
    const auto first = settings.WaitFor(std::chrono::seconds(10));
    std::printf("%-9s has waited for %s\n", "early", first ? first->theme.c_str() : "nothing");
  });
  zorvix::Holder settings(kSettings);
  settings.Set({"light", 1});
  settings.Set({"dark", 2});
  early.join();

  // Comes late, and has the newest before its constructor has returned.
  const zorvix::Watcher late(kSettings, print("late"));
  // Sees values in the drains of an inbox, where those between are skipped.
  zorvix::Inbox frame;
  const zorvix::Watcher drawn(kSettings, print("drawn"), frame);
  std::thread([&settings] {
    settings.Set({"dark", 3});
    settings.Set({"dark", 4});
  }).join();
  frame.Drain();

  // Needs no callable: asks when it wants to know.
  const zorvix::Watcher asking(kSettings);
  std::printf("%-9s volume %d\n", "asking", asking.Newest()->volume);
  return seen == "l2 l3 l4 d4 " && asking.Newest()->volume == 4 ? 0 : 1;
}
