// A topic on the plain interface: a Sync one, which delivers directly, and an Async one, which
// delivers from the queue.
#include <zorvix/zorvix.h>

#include <cstdio>
#include <string>

using bridge::BridgeModule;
using bridge::BridgeType;
using bridge::Control;
using bridge::Zorvix;
using Subscriber = std::function<void(const std::any&)>;

int main() {
  auto& bridge = Zorvix::GetInstance();
  int received = 0;
  const auto print = std::make_shared<Subscriber>([&](const std::any& message) {
    std::printf("received: %s\n", std::any_cast<const std::string&>(message).c_str());
    ++received;
  });

  for (const auto type : {BridgeType::Sync, BridgeType::Async}) {
    // In an app, publisher and subscriber are different modules, each with a Control of its own.
    std::shared_ptr<const Control> publisher =
        std::make_shared<Control>(Control{"greeting", BridgeModule::Topic, type});
    std::shared_ptr<const Control> subscriber =
        std::make_shared<Control>(Control{"greeting", BridgeModule::Topic, type});
    bridge.RegisterPublisher(publisher);
    bridge.RegisterSubscriber(subscriber, print);

    bridge.Publish(publisher, std::string(type == BridgeType::Sync ? "directly" : "queued"));
    bridge.SpinOnce();  // executes the task of the Async publication

    bridge.UnregisterSubscriber(subscriber, reinterpret_cast<unsigned long>(print.get()));
    bridge.UnregisterPublisher(publisher);
  }
  return received == 2 ? 0 : 1;
}
