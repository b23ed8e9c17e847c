#include <zorvix/typed.h>

#if _LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION != 2
#error "the package did not bring the definition that std::any needs"
#endif

int main() {
  const zorvix::Topic<std::string, bridge::BridgeType::Async> topic{"topic"};
  const zorvix::Subscriber print(topic, [](const std::string& text) { std::puts(text.c_str()); });
  const bool published = zorvix::Publisher(topic).Publish("message");
  bridge::Zorvix::GetInstance().SpinOnce();  // the package of the handles brings the bridge
  return published ? 0 : 1;
}
