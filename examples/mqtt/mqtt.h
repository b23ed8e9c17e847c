// A way out of the process: carries a topic of the bridge to an MQTT broker, as JSON, and into the
// bridge of another process, under the same name. A process carries a topic out or in, never both,
// so that nothing goes round in a circle. What is to go out while the broker is away is lost, and
// so is what JSON cannot carry: numbers that are not finite, text that is no UTF-8. Both are
// counted.
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
  // Throws std::invalid_argument for a name that MQTT does not allow.
  Carrier(Way way, const zorvix::Topic<Reading>& topic, const std::string& host, int port);
  // Waits for an attempt to connect that is under way, which nothing can end early: Linux gives up
  // after about two minutes for each address of a host that does not answer. Also waits up to half
  // a minute until a broker that is here has taken what is still to go out.
  ~Carrier();

 private:
  enum class Broker { New, Here, Away };
  void Run(const std::string& host, int port);
  bool Closing(std::chrono::seconds wait) const;
  void Here();
  void Away(int error);
  void Send(const Reading& reading);
  void Receive(const char* text, int size) noexcept;  // as no exception may pass functions in C

  const std::string topic_, address_;
  std::unique_ptr<mosquitto, void (*)(mosquitto*)> client_;
  std::atomic<Broker> broker_{Broker::New};
  std::atomic<unsigned> lost_{0};
  std::atomic<bool> told_{false};
  std::optional<zorvix::Publisher<Reading>> in_;
  std::optional<zorvix::Subscriber<Reading>> out_;
  std::promise<void> close_;
  const std::future<void> closing_{close_.get_future()};
  std::thread loop_;
};

}  // namespace mqtt

#endif  // ZORVIX_EXAMPLES_MQTT_MQTT_H_
