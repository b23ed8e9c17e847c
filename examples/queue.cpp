// Three ways to drain the queue: one task at a time, until it is empty, and on a worker thread.
#include <zorvix/zorvix.h>

#include <cstdio>
#include <future>
#include <thread>

using bridge::BridgeModule;
using bridge::BridgeType;
using bridge::Control;
using bridge::Zorvix;

int main() {
  auto& bridge = Zorvix::GetInstance();
  std::promise<std::thread::id> executed_on;
  int sum = 0;
  const auto add = std::make_shared<std::function<void(const std::any&)>>([&](const auto& message) {
    sum += std::any_cast<int>(message);
    if (sum == 10) executed_on.set_value(std::this_thread::get_id());
  });
  std::shared_ptr<const Control> topic =
      std::make_shared<Control>(Control{"add", BridgeModule::Topic, BridgeType::Async});
  bridge.RegisterSubscriber(topic, add);

  for (int number : {1, 2, 3}) bridge.Publish(topic, number);
  bridge.RunOneceStep();
  std::printf("after one step: %d\n", sum);
  bridge.SpinOnce();
  std::printf("queue drained: %d\n", sum);

  std::thread spin([&] { bridge.Spin(1); });  // blocks until StopSpin
  bridge.Publish(topic, 4);
  const bool on_worker = executed_on.get_future().get() != std::this_thread::get_id();
  std::printf("drained by a worker: %d\n", sum);
  bridge.StopSpin();
  spin.join();

  bridge.UnregisterSubscriber(topic, reinterpret_cast<unsigned long>(add.get()));
  return sum == 10 && on_worker ? 0 : 1;
}
