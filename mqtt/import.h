// The imports of a connection.
#ifndef ZORVIX_MQTT_IMPORT_H_
#define ZORVIX_MQTT_IMPORT_H_

#include <zorvix/mqtt.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "rejected.h"

namespace zorvix::mqtt {

// Whether an import is publishing the message at this address on this thread.
bool IsImportedMessage(const void* message);
// Whether an import of this process holds the state.
bool IsImportedState(const std::string& name);

namespace detail {

// An import. Its handler is invoked by the connection's thread until the import closes it.
class Inlet {
 public:
  Inlet(std::string its_name, std::string its_topic, Kind its_kind)
      : name(std::move(its_name)), topic(std::move(its_topic)), kind(its_kind) {}

  // Before the connection knows the import.
  void SetHandler(Receiver::Handler handler) {
    handler_ = std::make_shared<const Receiver::Handler>(std::move(handler));
  }
  // Invokes the handler. If it throws a std::exception, the text is rejected.
  void Receive(const std::string& text);
  // Afterwards the handler is not invoked. Blocks until another thread has left it.
  void Close();

  const std::string name;
  const std::string topic;
  const Kind kind;
  Rejected rejected{"import", name};

 private:
  std::mutex mutex_;
  std::condition_variable left_;
  // Guarded by the mutex. The analysis of the compiler cannot follow a wait.
  std::shared_ptr<const Receiver::Handler> handler_;  // null once it is closed
  std::thread::id inside_;                            // the thread that is invoking the handler
};

}  // namespace detail

using InletPointer = std::shared_ptr<detail::Inlet>;

}  // namespace zorvix::mqtt

#endif  // ZORVIX_MQTT_IMPORT_H_
