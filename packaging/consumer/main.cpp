#include <zorvix/zorvix_flat.h>

#include <cstdio>

#if defined(_LIBCPP_VERSION) && _LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION != 2
#error "the package did not bring the definition that std::any needs"
#endif

int main() {
  std::shared_ptr<const bridge::Control> topic = std::make_shared<bridge::Control>();
  ZorvixRegisterSubscriber(
      topic, std::make_shared<std::function<void(const std::any&)>>([](const std::any& message) {
        std::printf("%s received by %s\n", std::any_cast<const char*>(message), "consumer");
      }));
  // GetRealName is inline and logs, so it shows whether liblog comes with the package.
  return ZorvixPublish(topic, "message") && bridge::Zorvix::GetRealName(topic) == "/Topic/Sync" ? 0
                                                                                                : 1;
}
