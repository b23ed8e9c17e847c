// Uses the plain interface only.
#include <zorvix/zorvix.h>

int main() {
  auto& bridge = bridge::Zorvix::GetInstance();
  std::shared_ptr<const bridge::Control> topic(new bridge::Control{"topic"});
  const auto print = std::make_shared<std::function<void(const bridge::Message&)>>(
      [](const bridge::Message& text) { std::puts(std::any_cast<std::string>(text).c_str()); });
  bridge.RegisterSubscriber(topic, print);
  return bridge.Publish(topic, std::string("message")) ? 0 : 1;
}
