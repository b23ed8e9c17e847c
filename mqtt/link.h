// One attempt to be connected to a broker: a client of libmosquitto that never blocks.
#ifndef ZORVIX_MQTT_LINK_H_
#define ZORVIX_MQTT_LINK_H_

#include <mosquitto.h>
#include <zorvix/mqtt.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "reason.h"
#include "tls.h"

namespace zorvix::mqtt {

// In place of a message's number: Link::Publish has failed, and so will the link.
constexpr int kNoNumber = -1;

// All functions must be called on one thread, on which SIGPIPE is blocked. Once one of them has
// returned a Failure, only the destructor may be called.
class Link {
 public:
  struct Received {
    std::string topic;
    std::string payload;  // cut off if it is longer than options.max_payload_size, but still longer
  };
  struct Acknowledged {
    int number;
    const char* refusal;  // or nullptr
  };
  struct Published {
    int number;           // of the message, for its acknowledgement
    const char* refusal;  // why it can never be sent, or nullptr
  };

  // Continues the session of an earlier link of this client_id, if the broker still has it. The
  // options must outlive the link.
  Link(const Options& options, const std::string& client_id);
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  // Begins to connect to a numeric address. It is reached when the socket is writable.
  Failure Open(const std::string& address, int port, const Credentials& credentials);
  Failure Reached();
  // When the socket is readable. What has been received is acknowledged by the next function that
  // sends anything.
  Failure Read();
  // When the socket is writable.
  Failure Write();
  // At least once a second.
  Failure KeepAlive();
  // When there is nothing to read any more.
  Reason Lost() { return *Check(MOSQ_ERR_CONN_LOST); }

  int socket() const { return mosquitto_socket(client_.get()); }
  bool wants_write() const { return mosquitto_want_write(client_.get()); }
  bool connected() const { return connected_; }

  // Those of states are retained.
  Published Publish(const std::string& topic, const std::string& text, detail::Kind kind);
  // The answer is logged.
  void Subscribe(const std::string& topic, detail::Kind kind);
  void Unsubscribe(const std::string& topic);
  // An orderly end, which Write sends. With a status_topic the broker publishes the last will.
  void Disconnect();

  // What Read has found, to be taken by the owner.
  std::vector<Received> received;
  std::vector<Acknowledged> acknowledged;

 private:
  Failure Prepare(const Credentials& credentials);
  int SetConnectProperties();
  void SetCallbacks();
  const SSL* ssl() const { return static_cast<const SSL*>(mosquitto_ssl_get(client_.get())); }
  Failure Check(int error);
  Reason Describe(int error) const;
  Reason Guess(Reason reason) const;

  const Options& options_;
  const std::string client_id_;
  std::unique_ptr<mosquitto, void (*)(mosquitto*)> client_;
  TlsContext tls_{nullptr, SSL_CTX_free};
  bool may_receive_;      // has a session, or subscriptions
  bool has_tls_ = false;  // the handshake is complete
  bool connected_ = false;
  bool retains_ = true;
  int refusal_ = 0;       // reason code of a CONNACK
  int disconnected_ = 0;  // reason code of a DISCONNECT
  int failed_ = 0;        // error of Publish
  Failure tls_error_;
  std::unordered_map<int, std::string> subscribing_;  // topics by the number of the request
};

}  // namespace zorvix::mqtt

#endif  // ZORVIX_MQTT_LINK_H_
