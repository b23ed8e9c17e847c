// A state: each watcher has the latest value, whether it was constructed before or after the value
// was set.
#include <zorvix/typed.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

// What modules would share.
struct Settings {
  std::string theme;
  int volume;
};
inline constexpr zorvix::State<Settings> kSettings{"settings"};

// Needs no callable: blocks until there is a value.
void WaitForSettings() {
  const zorvix::Watcher settings(kSettings);
  const auto first = settings.WaitForValue(std::chrono::seconds(10));
  std::printf("early: has waited for %s\n", first ? first->theme.c_str() : "nothing");
}

int main() {
  std::string log;
  const auto print = [&log](const std::string& watcher) {
    return [&log, watcher](const Settings& settings) {
      std::printf("%s: %s, volume %d\n", watcher.c_str(), settings.theme.c_str(), settings.volume);
      log += watcher + std::to_string(settings.volume) + ' ';
    };
  };

  // Watches before there is a value, perhaps even before there is a holder.
  std::thread early(WaitForSettings);
  zorvix::Holder settings(kSettings);
  settings.Set({"light", 1});
  settings.Set({"dark", 2});
  early.join();

  // Constructed late: its callable is invoked with the latest value before the constructor returns.
  const zorvix::Watcher late(kSettings, print("late"));
  // With an inbox: its callable is invoked in drains, with the latest value only.
  zorvix::Inbox frame;
  const zorvix::Watcher drawn(kSettings, print("drawn"), frame);
  std::thread([&settings] {
    settings.Set({"dark", 3});
    settings.Set({"dark", 4});
  }).join();
  frame.Drain();

  // Without a callable: asks for the latest value when it needs it.
  const zorvix::Watcher asking(kSettings);
  std::printf("asking: volume %d\n", asking.Latest()->volume);
  return log == "late2 late3 late4 drawn4 " && asking.Latest()->volume == 4 ? 0 : 1;
}
