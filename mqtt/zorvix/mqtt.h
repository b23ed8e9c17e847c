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
//   Status, Counters, kStatus   whether there is a connection, why not, and how much was carried
//   Credentials, Will, Options  what a Connection needs to know
//   Connection                  connects to a broker, for as long as it exists
//   Export                      sends a topic or state
//   Import                      receives a topic or state
//
// Delivery: at least once (QoS 1), in the order in which a publisher published, apart from
// repetitions. Publishing never waits for the network: an export keeps the last n messages that the
// broker has not been given yet, and drops its oldest beyond that. What has been given to the
// broker but not acknowledged, 100 messages or 1 MiB at most, is sent again. Nothing else is lost
// while the process lives and the broker keeps what it has acknowledged.
//
// Sessions: with Options::client_id the broker keeps messages for imports, for
// Options::session_expiry, while the connection is interrupted or the process restarts. A message
// is acknowledged when its Import has published it. What arrives before its Import is constructed
// is held for 10 s, 4 MiB at most; it is lost if the process ends meanwhile. Without a client_id
// the broker keeps nothing for imports, and nothing is left behind.
//
// States are retained messages, so a process that connects later has the latest value. On each
// connect an export sends its state's current value again.
//
// Loops: an export does not send what an import of this process publishes under the same name, not
// even that of another connection. While a state is imported, exports of it in this process send
// nothing.
//
// Names: the MQTT topic is Options::topic_prefix followed by the name of the topic or state, or by
// the mqtt_topic that is passed in place of it. A topic with a wildcard (+ or #), beginning with $,
// empty, too long or not UTF-8 throws std::invalid_argument.
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

#include <zorvix/detail/mqtt.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

namespace zorvix::mqtt {

// Since the connection was constructed. Bytes are those of payloads.
struct Counters {
  std::uint64_t connections = 0;   // that the broker has accepted
  std::uint64_t sent = 0;          // messages, also those that were sent again
  std::uint64_t sent_again = 0;    // unacknowledged messages and values of states, on a new connect
  std::uint64_t acknowledged = 0;  // by the broker
  std::uint64_t received = 0;
  std::uint64_t bytes_sent = 0;
  std::uint64_t bytes_received = 0;
};

struct Status {
  bool connected = false;
  std::string broker;  // host:port
  std::string reason;  // why it is not connected, or empty
  Counters counters;   // when `connected` or `reason` changed; Connection::counters has later ones
};
const State<Status> kStatus{"zorvix/mqtt/status"};

struct Credentials {
  std::string username;
  std::string password;
};

// A message that the broker publishes when it loses the connection.
struct Will {
  std::string topic;  // after Options::topic_prefix
  std::string text;
  bool retained = false;
};

// Texts must be UTF-8 without control characters, those that are sent at most 65,535 bytes long.
struct Options {
  std::string host = "localhost";
  int port = 0;           // 0: 8883 with ca_file, 1883 without
  std::string client_id;  // empty: a random one, without a session
  std::string username;
  std::string password;  // any bytes but zero
  // Called for each attempt to connect, on the connection's thread, for tokens that expire. In
  // place of username and password.
  std::function<Credentials()> credentials;
  // The authorities that are trusted. With this file only TLS 1.2 or later is spoken; the broker's
  // certificate must come from one of them and name `host` in its alternative names. Without it
  // nothing is encrypted. With libmosquitto before 2.0.16, which a hostile packet can crash, it is
  // required, unless the host is this machine.
  std::string ca_file;
  std::string certificate_file;  // of this client, where the broker asks for one; needs ca_file
  std::string key_file;          // not encrypted
  // User name and password are refused without ca_file, unless the host is this machine or this is
  // true: then everybody between here and the broker can read them.
  bool allow_plaintext_password = false;
  std::string topic_prefix;  // of all MQTT topics, such as "factory/"
  // The broker is told not to send packets longer than this and 65 KiB; longer payloads than this
  // are rejected.
  std::size_t max_payload_size = std::size_t{256} * 1024;
  std::optional<Will> last_will;  // an orderly end does not publish it
  // A retained message, after topic_prefix, which is "online" while there is a connection and
  // becomes "offline" however it ends. In place of last_will.
  std::string status_topic;
  // How long the destructor may take to send what is pending.
  std::chrono::milliseconds close_timeout{1'000};
  // Between attempts to connect. Delays begin with 100 ms and double up to this one, until the
  // reason changes or a connection has lasted a minute.
  std::chrono::milliseconds max_reconnect_delay{30'000};
  std::chrono::seconds keep_alive{30};  // a broker that is silent for longer is away; 10 or more
  // How long the broker keeps messages for the imports of client_id.
  std::chrono::seconds session_expiry{3'600};
  // Where the status is. A second connection of a process needs a state of its own.
  State<Status> status = kStatus;
};

// Keeps up a connection to a broker on a thread of its own. While the broker is away it tries
// again, with growing delays. A new reason is logged with one WARN and set in Options::status.
class ZORVIX_EXPORT Connection {
 public:
  // Does not wait for the broker. Throws std::invalid_argument for options that are out of range or
  // contradict each other, and for certificates and keys that cannot be read.
  explicit Connection(const Options& options);
  // Sends what is pending, for Options::close_timeout at most, and logs how many messages were not
  // sent. In a callable that runs on the connection's own thread it sends nothing more, and the
  // process exits only when that callable has returned.
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Any thread may call it.
  Counters counters() const;

 private:
  friend class detail::Sender;
  friend class detail::Receiver;
  const std::shared_ptr<detail::Core> core_;
  std::chrono::milliseconds close_timeout_;
  std::thread thread_;
};

// Sends the messages of a topic, or the values of a state, to the broker.
class Export {
 public:
  // Sends encode(const Message&), a std::string, for each message that is published. It is called
  // on the publisher's thread, so several threads may call it at the same time. A message for which
  // it throws a std::exception is not sent; that is counted and logged without its text. A message
  // at which the broker has ended three connections is not sent again.
  template <typename Message>
  [[nodiscard]] Export(Connection& connection, const Topic<Message>& topic,
                       typename detail::Given<detail::Encoder<Message>>::Function encode,
                       KeepLast keep = {}, const std::string& mqtt_topic = {})
      : source_(detail::StartExport<Subscriber<Message>, Message>(
            std::make_shared<detail::Sender>(connection, topic.name, mqtt_topic,
                                             detail::Kind::kTopic, keep),
            topic, std::move(encode))) {}

  // Sends the current value, if there is one, and each later one, as a retained message. Values in
  // between may be skipped, the last one never. An empty text clears the retained message. The
  // broker keeps the value when the export is destroyed.
  template <typename Value>
  [[nodiscard]] Export(Connection& connection, const State<Value>& state,
                       typename detail::Given<detail::Encoder<Value>>::Function encode,
                       const std::string& mqtt_topic = {})
      : source_(detail::StartExport<Watcher<Value>, Value>(
            std::make_shared<detail::Sender>(connection, state.name, mqtt_topic,
                                             detail::Kind::kState, KeepLast{1}),
            state, std::move(encode))) {}
  Export(Export&&) noexcept = default;
  Export& operator=(Export&&) noexcept = default;

 private:
  std::shared_ptr<void> source_;
};

// Receives a topic, or a state, from the broker. A payload for which `decode` throws a
// std::exception, or that is longer than Options::max_payload_size, reaches nobody. It is counted,
// and logged with the name but without its text, at most once a second for each import.
class Import {
 public:
  // Publishes decode(const std::string&), a Message, for each message. Retained ones are not
  // events: what the broker retains from before is not received.
  template <typename Message>
  [[nodiscard]] Import(Connection& connection, const Topic<Message>& topic,
                       typename detail::Given<detail::Decoder<Message>>::Function decode,
                       const std::string& mqtt_topic = {})
      : receiver_(detail::ImportTopic(connection, topic, mqtt_topic, std::move(decode))) {}

  // Holds the state, so this process must have no other holder of it. Keeps the last value while
  // the broker is away. Where the retained message is cleared (an empty payload), the state has no
  // value until another arrives: later watchers get none, earlier ones keep what they have.
  template <typename Value>
  [[nodiscard]] Import(Connection& connection, const State<Value>& state,
                       typename detail::Given<detail::Decoder<Value>>::Function decode,
                       const std::string& mqtt_topic = {})
      : receiver_(detail::ImportState(connection, state, mqtt_topic, std::move(decode))) {}
  Import(Import&&) noexcept = default;
  Import& operator=(Import&&) noexcept = default;

 private:
  std::shared_ptr<void> receiver_;
};

}  // namespace zorvix::mqtt

#endif  // ZORVIX_MQTT_H_
