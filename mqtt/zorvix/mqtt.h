// MQTT: carries topics and states of the bridge to an MQTT 5 broker and back, with TLS, credentials
// and delivery guarantees.
//
//   zorvix::mqtt::Options options;
//   options.host = "broker.example";
//   options.ca_file = "ca.pem";
//   zorvix::mqtt::Connection connection(options);
//   zorvix::mqtt::Export readings(connection, kReadings, ToJson, zorvix::KeepLast{1000});
//   zorvix::mqtt::Import commands(connection, kCommands, FromJson);
//   zorvix::Watcher status(zorvix::mqtt::kStatus, [](const zorvix::mqtt::Status& now) { ... });
//
// Delivery: at least once (QoS 1), in the order in which a publisher published, apart from
// repetitions. Publishing never waits for the network: an export keeps the last n messages that the
// broker has not been given yet, and drops its oldest beyond that, which is counted and logged as
// for any subscriber with an inbox (under the name zorvix/mqtt/NUMBER/NAME). Nothing else is lost
// while the process lives and the broker keeps what it has acknowledged. What others publish while
// a connection is interrupted arrives when it is back, within Options::session_expiry and what the
// broker is willing to keep. A process that starts again with the same client_id also gets what the
// broker has kept since; messages that arrive before their Import is constructed are dropped.
//
// States are retained messages, so a process that connects later has the latest value. On each
// connect an export sends its state's current value again.
//
// Loops: an export does not send what an import of this process publishes under the same name, not
// even that of another connection. While a state is imported, exports of it in this process send
// nothing.
//
// Names: the MQTT topic is Options::prefix followed by the name of the topic or state. A name with
// a wildcard (+ or #), beginning with $, empty, too long or not UTF-8 throws std::invalid_argument.
//
// Threads: a connection has one thread of its own. Imports publish on it, so give slow subscribers
// an inbox. Handles may be constructed and destroyed on any thread, also in a callable. An
// exception of a subscriber that is no std::exception ends the process.
//
// Lifetime: once the destructor of an Export or Import has returned, its functions are not running
// on another thread and will not be called again, as for Subscriber. They may be destroyed before
// or after their Connection. What an export has pending when it is destroyed is still sent.
//
// The log and kStatus never show a password or a payload.
#ifndef ZORVIX_MQTT_H_
#define ZORVIX_MQTT_H_

#include <zorvix/mqtt_detail.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <utility>

namespace zorvix {
namespace mqtt {

struct Status {
  bool connected = false;
  std::string broker;   // host:port
  std::string why_not;  // the reason while it is not connected, or empty
};
const State<Status> kStatus{"zorvix/mqtt/status"};

struct Options {
  std::string host = "localhost";
  int port = 0;           // 0: 8883 with ca_file, 1883 without
  std::string client_id;  // empty: a random one
  std::string username;
  std::string password;
  // The authorities that are trusted. With this file only TLS 1.2 or later is spoken; the broker's
  // certificate must come from one of them and name `host`. Without it nothing is encrypted.
  std::string ca_file;
  std::string certificate_file;  // of this client, where the broker asks for one; needs ca_file
  std::string key_file;          // not encrypted
  // User name and password are refused without ca_file, unless the host is this machine or this is
  // true: then everybody between here and the broker can read them.
  bool send_password_unencrypted = false;
  std::string prefix;  // of all MQTT topics, such as "factory/"
  std::size_t payload_limit =
      std::size_t{256} * 1024;  // longer payloads are rejected before they are read
  // How long the destructor may take to send what is pending; negative: without limit.
  std::chrono::milliseconds close_limit{1'000};
  // Between attempts to connect. Pauses begin with 100 ms and double up to it.
  std::chrono::milliseconds longest_pause{30'000};
  std::chrono::seconds keep_alive{30};  // a broker that is silent for longer is away; 5 or more
  // How long the broker keeps messages for imports while the connection is interrupted.
  std::chrono::seconds session_expiry{3'600};
  // Where the status is. A second connection of a process needs a state of its own.
  State<Status> status = kStatus;
};

// Keeps up a connection to a broker on a thread of its own. While the broker is away it tries
// again, with growing pauses; each new reason is logged with one WARN and set in Options::status.
class ZORVIX_EXPORT Connection {
 public:
  // Does not wait for the broker. Throws std::invalid_argument for options that contradict each
  // other, and for certificates and keys that cannot be read.
  explicit Connection(const Options& options);
  // Sends what is pending, for Options::close_limit at most, and logs how many messages were not
  // sent. In a callable that runs on the connection's own thread it sends nothing more, and the
  // process exits only when that callable has returned.
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

 private:
  friend class detail::Sender;
  friend class detail::Receiver;
  const std::shared_ptr<detail::Core> core_;
  std::chrono::milliseconds close_limit_;
  std::thread thread_;
};

// Sends the messages of a topic, or the values of a state, to the broker.
class Export {
 public:
  // Sends write(const Message&), a std::string, for each message that is published. It is called on
  // the publisher's thread, so several threads may call it at the same time. A message for which it
  // throws a std::exception is not sent; that is counted and logged without its text.
  template <typename Message>
  [[nodiscard]] Export(Connection& connection, const Topic<Message>& topic,
                       typename detail::Given<detail::Writer<Message>>::Function write,
                       KeepLast keep = {})
      : exporting_(std::make_shared<detail::Exporting<Subscriber<Message>>>(
            connection, topic, detail::Kind::kTopic, std::move(write), keep)) {}

  // Sends the current value, if there is one, and each later one, as a retained message. While the
  // broker is away only the latest is kept. An empty text clears the retained message. The broker
  // keeps the value when the export is destroyed.
  template <typename Value>
  [[nodiscard]] Export(Connection& connection, const State<Value>& state,
                       typename detail::Given<detail::Writer<Value>>::Function write)
      : exporting_(std::make_shared<detail::Exporting<Watcher<Value>>>(
            connection, state, detail::Kind::kState, std::move(write), KeepLast{1})) {}
  Export(Export&&) noexcept = default;
  Export& operator=(Export&&) noexcept = default;

 private:
  std::shared_ptr<void> exporting_;
};

// Receives a topic, or a state, from the broker. A payload for which `read` throws a
// std::exception, or that is longer than Options::payload_limit, reaches nobody. It is counted, and
// logged with the topic but without its text, at most once a second for each import.
class Import {
 public:
  // Publishes read(const std::string&), a Message, for each message. Retained ones are not events:
  // what the broker retains from before is not received.
  template <typename Message>
  [[nodiscard]] Import(Connection& connection, const Topic<Message>& topic,
                       typename detail::Given<detail::Reader<Message>>::Function read)
      : importing_(detail::ImportTopic(connection, topic, std::move(read))) {}

  // Holds the state, so this process must have no other holder of it. Keeps the last value while
  // the broker is away. Where the retained message is cleared (an empty payload), the state has no
  // value until another arrives: later watchers get none, earlier ones keep what they have.
  template <typename Value>
  [[nodiscard]] Import(Connection& connection, const State<Value>& state,
                       typename detail::Given<detail::Reader<Value>>::Function read)
      : importing_(detail::ImportState(connection, state, std::move(read))) {}
  Import(Import&&) noexcept = default;
  Import& operator=(Import&&) noexcept = default;

 private:
  std::shared_ptr<void> importing_;
};

}  // namespace mqtt
}  // namespace zorvix

#endif  // ZORVIX_MQTT_H_
