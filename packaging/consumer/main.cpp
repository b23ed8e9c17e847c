#include <zorvix/typed.h>

#if _LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION != 2
#error "the package did not bring the definition that std::any needs"
#endif

int main() {
  const zorvix::Topic<std::string> topic{"topic"};
  const zorvix::Subscriber print(topic, [](const std::string& text) { std::puts(text.c_str()); });
  return zorvix::Publisher(topic).Publish("message") ? 0 : 1;
}
