// A way out of the process: carries a topic of the bridge to an MQTT broker, as JSON, and into the
// bridge of another process, under the same name. A process carries a topic out or in, never both,
// so that nothing goes round in a circle. What goes out while the broker is away is lost.
#ifndef ZORVIX_EXAMPLES_MQTT_MQTT_H_
#define ZORVIX_EXAMPLES_MQTT_MQTT_H_

#include <mosquitto.h>
#include <zorvix/typed.h>

#include "reading.h"

namespace mqtt {

// Keeps up a connection on a thread of its own. Another thread must destroy it; then nothing runs.
class Carrier {
 public:
  enum class Way { Out, In };
  // Blocks to look up the host. Throws std::invalid_argument for a name that MQTT does not allow.
  Carrier(Way way, const zorvix::Topic<Reading>& topic, const std::string& host, int port);
  ~Carrier();

 private:
  enum class Broker { New, Here, Away };
  void Here();
  void Away(int error);
  void Receive(const char* text, int size) noexcept;  // as no exception may pass functions in C

  const std::string topic_, address_;
  std::unique_ptr<mosquitto, void (*)(mosquitto*)> client_;
  std::atomic<Broker> broker_{Broker::New};
  std::atomic<bool> closing_{false};
  std::atomic<unsigned> lost_{0};
  std::optional<zorvix::Publisher<Reading>> in_;
  std::optional<zorvix::Subscriber<Reading>> out_;
};

}  // namespace mqtt

#endif  // ZORVIX_EXAMPLES_MQTT_MQTT_H_
