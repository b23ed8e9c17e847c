// One attempt to be connected to a broker: a client of libmosquitto that never blocks.
#ifndef ZORVIX_MQTT_LINK_H_
#define ZORVIX_MQTT_LINK_H_

#include <mosquitto.h>
#include <openssl/ssl.h>
#include <zorvix/mqtt.h>

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace zorvix {
namespace mqtt {

using TlsContext = std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)>;

// Returns an empty one without ca_file. It trusts the authorities of that file only and checks that
// the certificate names options.host, which must outlive it.
// Throws std::invalid_argument for files that cannot be read.
TlsContext MakeTlsContext(const Options& options);

bool IsLocalHost(const std::string& host);

// All functions must be called on one thread. Those that return a text return an empty one on
// success and else why the link is down; it must not be used any further then.
class Link {
 public:
  struct Received {
    std::string topic;
    std::string payload;  // empty if it is longer than options.payload_limit
    std::size_t size;
  };
  struct Acknowledged {
    int number;
    const char* refusal;  // or nullptr
  };

  struct Subscribed {
    std::string topic;
    const char* refusal;  // or nullptr
  };

  // Continues the session of an earlier link of this client_id, if the broker still has it.
  Link(const Options& options, const std::string& client_id);
  Link(const Link&) = delete;

  // Begins to connect to a numeric address. It is reached when the socket is writable.
  std::string Open(const std::string& address, int port);
  std::string Reached();
  // When the socket is readable.
  std::string Read();
  // When the socket is writable, and wants_write().
  std::string Write();
  // At least once a second.
  std::string KeepAlive();

  int socket() const { return mosquitto_socket(client_.get()); }
  bool wants_write() const { return mosquitto_want_write(client_.get()); }
  bool connected() const { return connected_; }

  // Returns nullptr, or why the message can never be sent. Sets the number of the message for
  // which there is an acknowledgement later, 0 where there will be none.
  const char* Publish(const std::string& topic, const std::string& text, bool retained,
                      int& number);
  void Subscribe(const std::string& topic, bool retained);
  void Unsubscribe(const std::string& topic);
  // Says goodbye and ends the session.
  void Disconnect();

  // What Read has found, to be taken by the owner.
  std::vector<Received> received;
  std::vector<Acknowledged> acknowledged;
  std::vector<Subscribed> subscribed;

 private:
  std::string Why(int error) const;
  void SetCallbacks();
  void OnTlsError(const char* text);

  const Options& options_;
  std::unique_ptr<mosquitto, void (*)(mosquitto*)> client_;
  bool connected_ = false;
  bool retains_ = true;
  int refusal_ = 0;       // reason code of a CONNACK
  int disconnected_ = 0;  // reason code of a DISCONNECT
  std::string tls_error_;
  std::unordered_map<int, std::string> subscribing_;  // topics by the number of the request
};

}  // namespace mqtt
}  // namespace zorvix

#endif  // ZORVIX_MQTT_LINK_H_
