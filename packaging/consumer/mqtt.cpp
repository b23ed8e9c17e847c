#include <zorvix/mqtt.h>

int main() {
  const zorvix::mqtt::Connection connection({});
  std::puts("connecting");
}
