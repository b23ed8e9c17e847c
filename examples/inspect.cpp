// Seven faults that apps have, in one program, and the table that names each in its last column.
#include <zorvix/inspect.h>
#include <zorvix/state.h>
#include <zorvix/typed.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <string>
#include <thread>

using std::chrono::milliseconds;

struct Alert {
  std::string text;
};
struct Place {
  double latitude, longitude;
};

const auto ignore = [](const auto&) {};

inline constexpr zorvix::Topic<Place> kFix{"gps/fix"};
inline constexpr zorvix::Topic<Place> kMisspelled{"gps/fxi"};
inline constexpr zorvix::Topic<int> kFrames{"frames"};
inline constexpr zorvix::Topic<int> kSamples{"samples"};
inline constexpr zorvix::Topic<Alert> kAlerts{"alerts"};
inline constexpr zorvix::Topic<std::string> kAlertTexts{"alerts"};
inline constexpr zorvix::Service<int, std::string> kRoutes{"routes"};
inline constexpr zorvix::Topic<int> kThumbnails{"thumbnails"};
inline constexpr zorvix::State<int> kVolume{"volume"};
inline constexpr zorvix::State<int> kCapitalVolume{"Volume"};

std::atomic<bool> is_over{false};

std::string FindRoute(int) {
  while (!is_over) std::this_thread::yield();
  return "straight ahead";
}

int main() {
  const zorvix::SlowLog slow(milliseconds(16));  // a frame of a screen with 60 Hz

  // 1. The name is misspelled.
  const zorvix::Publisher fixes(kMisspelled);
  const zorvix::Subscriber map(kFix, ignore);

  // 2. The callable takes 35 ms, on the publisher's thread.
  const zorvix::Publisher camera(kFrames);
  const zorvix::Subscriber filter(kFrames,
                                  [](int) { std::this_thread::sleep_for(milliseconds(35)); });

  // 3. The queue holds 5 samples, and is drained too seldom.
  zorvix::Inbox recorder("recorder");
  const zorvix::Publisher sensor(kSamples);
  const zorvix::Subscriber recorded(kSamples, ignore, recorder, zorvix::KeepLast{5});

  // 4. The modules disagree about the type.
  const zorvix::Publisher alarm(kAlerts);
  const zorvix::Subscriber speaker(kAlertTexts, ignore);

  // 5. A server does not return, until the example ends.
  zorvix::Inbox router("router");
  const zorvix::Server routes(kRoutes, FindRoute, router);
  const zorvix::InboxThread router_thread(router);

  // 6. Nobody has started workers.
  const zorvix::Publisher scanner(kThumbnails);
  const zorvix::Subscriber gallery(kThumbnails, ignore, zorvix::Delivery::Queued);

  // 7. The holder writes the name in another case.
  zorvix::Holder mixer(kCapitalVolume);
  const zorvix::Watcher slider(kVolume, ignore);

  fixes.Publish({48.1, 11.6});
  camera.Publish(1);
  for (int sample = 0; sample < 20; ++sample) sensor.Publish(sample);
  recorder.Drain();
  alarm.Publish({"low battery"});
  scanner.Publish(1);
  mixer.Set(7);
  std::thread caller([] { zorvix::Client(kRoutes).Call(1); });
  std::this_thread::sleep_for(milliseconds(1500));

  std::cout << zorvix::Inspect();

  is_over = true;
  caller.join();
}
