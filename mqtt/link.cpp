#include "link.h"

#include <mqtt_protocol.h>
#include <openssl/bio.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <mutex>
#include <optional>
#include <stdexcept>

namespace zorvix::mqtt {

namespace {

constexpr int kLowestError = 0x80;  // of the reason codes of MQTT
// What a packet has beside the payload: a topic and the sender's properties.
constexpr std::size_t kPacketOverhead = std::size_t{65} * 1024;

const char* Refusal(int reason) {
  return reason < kLowestError ? nullptr : mosquitto_reason_string(reason);
}

void LogSubscription(const std::string& topic, const char* refusal) {
  if (refusal == nullptr) {
    BRIDGE_LOG(bridge::kLogInfo, "MQTT subscribed, topic: %s", topic.c_str());
  } else {
    BRIDGE_LOG(bridge::kLogWarn, "MQTT subscription refused, topic: %s, reason: %s", topic.c_str(),
               refusal);
  }
}

const char* TextOrNull(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

Link& Self(void* self) { return *static_cast<Link*>(self); }

// Keeps the client library from ignoring SIGPIPE in the whole process.
mosquitto* NewClient(const std::string& client_id, Link* link) {
  static std::mutex mutex;  // of all connections, or one would restore what another one has changed
  const std::lock_guard lock(mutex);
  struct sigaction before {};
  sigaction(SIGPIPE, nullptr, &before);
  auto* const client = mosquitto_new(client_id.c_str(), /*clean_session=*/false, link);
  sigaction(SIGPIPE, &before, nullptr);
  return client;
}

const char* CauseOfDisconnect(int reason) {
  // They say nothing about what the broker was sent.
  constexpr int kOwnReasons[] = {MQTT_RC_SERVER_UNAVAILABLE,       MQTT_RC_SERVER_BUSY,
                                 MQTT_RC_SERVER_SHUTTING_DOWN,     MQTT_RC_KEEP_ALIVE_TIMEOUT,
                                 MQTT_RC_ADMINISTRATIVE_ACTION,    MQTT_RC_USE_ANOTHER_SERVER,
                                 MQTT_RC_CONNECTION_RATE_EXCEEDED, MQTT_RC_SERVER_MOVED,
                                 MQTT_RC_MAXIMUM_CONNECT_TIME};
  if (reason == MQTT_RC_SESSION_TAKEN_OVER) return kTakenOver;
  const bool is_own = std::count(std::begin(kOwnReasons), std::end(kOwnReasons), reason) != 0;
  return is_own ? kEnded : kRefusesMessage;
}

Reason DescribeSystemError(int error) {
  switch (error) {
    case ECONNREFUSED:
      return {kRefused, ""};
    case 0:
    case ECONNRESET:
    case EPIPE:
    case EPROTO:  // TLS without a text
      return {kLost, ""};
    default:
      return {kUnreachable, std::strerror(error)};
  }
}

}  // namespace

Link::Link(const Options& options, const std::string& client_id)
    : options_(options),
      client_id_(client_id),
      client_(nullptr, mosquitto_destroy),
      may_receive_(!options.client_id.empty()) {}

Failure Link::Prepare(const Credentials& credentials) {
  auto* const client = NewClient(client_id_, this);
  client_.reset(client);
  if (client == nullptr) return Reason{kOptions, "client_id"};
  const bool has_will = !options_.status_topic.empty() || options_.last_will;
  const Will will = options_.last_will.value_or(Will{options_.status_topic, "offline", true});
  const std::string will_topic = options_.topic_prefix + will.topic;
  const auto& [username, password] = credentials;
  const auto set_will = [&] {
    if (!has_will) return 0;
    return mosquitto_will_set_v5(client, will_topic.c_str(), static_cast<int>(will.text.size()),
                                 will.text.data(), /*qos=*/1, will.retained, nullptr);
  };
  const auto set_tls = [&] {
    if (!tls_) return 0;
    const int error = mosquitto_int_option(client, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0);
    if (error != MOSQ_ERR_SUCCESS) return error;
    return mosquitto_void_option(client, MOSQ_OPT_SSL_CTX, tls_.get());
  };
  for (const int error : {
           mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5),
           // The broker has a limit of its own.
           mosquitto_int_option(client, MOSQ_OPT_SEND_MAXIMUM, 0xFFFF),
           mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1),
           mosquitto_threaded_set(client, true),
           mosquitto_username_pw_set(client, TextOrNull(username), TextOrNull(password)),
           set_will(),
           set_tls(),
           SetConnectProperties(),
       }) {
    if (error != MOSQ_ERR_SUCCESS) return Reason{kOptions, mosquitto_strerror(error)};
  }
  SetCallbacks();
  return std::nullopt;
}

int Link::SetConnectProperties() {
  const auto expiry = options_.client_id.empty() ? 0 : options_.session_expiry.count();
  const std::size_t packet_size = options_.max_payload_size + kPacketOverhead;
  mosquitto_property* properties = nullptr;
  int error = mosquitto_property_add_int32(&properties, MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                                           static_cast<std::uint32_t>(expiry));
  if (error == MOSQ_ERR_SUCCESS) {
    error = mosquitto_property_add_int32(&properties, MQTT_PROP_MAXIMUM_PACKET_SIZE,
                                         static_cast<std::uint32_t>(packet_size));
  }
  if (error == MOSQ_ERR_SUCCESS) {
    // Only the call that blocks takes properties. With a bad port it keeps them and does nothing.
    error = mosquitto_connect_bind_v5(client_.get(), "host", /*port=*/-1, 0, nullptr, properties);
  }
  mosquitto_property_free_all(&properties);
  return error == MOSQ_ERR_INVAL ? MOSQ_ERR_SUCCESS : error;
}

void Link::SetCallbacks() {
  auto* const client = client_.get();
  mosquitto_connect_v5_callback_set(
      client, [](auto*, void* self, int reason, int, const mosquitto_property* properties) {
        Self(self).connected_ = reason == 0;
        Self(self).refusal_ = reason;
        std::uint8_t retains = 1;
        mosquitto_property_read_byte(properties, MQTT_PROP_RETAIN_AVAILABLE, &retains, false);
        Self(self).retains_ = retains != 0;
      });
  mosquitto_disconnect_v5_callback_set(client, [](auto*, void* self, int reason, auto*) {
    // The library may report the end again, without the reason.
    if (Self(self).disconnected_ == 0) Self(self).disconnected_ = reason;
  });
  mosquitto_message_callback_set(client, [](auto*, void* self, auto* message) {
    const auto size = std::min(static_cast<std::size_t>(message->payloadlen),
                               Self(self).options_.max_payload_size + 1);
    Self(self).received.push_back(
        {message->topic, std::string(static_cast<const char*>(message->payload), size)});
  });
  mosquitto_publish_v5_callback_set(client, [](auto*, void* self, int number, int reason, auto*) {
    Self(self).acknowledged.push_back({number, Refusal(reason)});
  });
  mosquitto_subscribe_callback_set(
      client, [](auto*, void* self, int number, int count, const int* granted) {
        const auto topic = Self(self).subscribing_.extract(number);
        if (topic) LogSubscription(topic.mapped(), count == 0 ? nullptr : Refusal(granted[0]));
      });
  // Errors that the library logs are those of OpenSSL; the first tells most.
  mosquitto_log_callback_set(client, [](auto*, void* self, int level, auto* text) {
    if (level != MOSQ_LOG_ERR || Self(self).tls_error_) return;
    Self(self).tls_error_ = DescribeTlsError(Self(self).ssl(), text);
  });
}

Failure Link::Open(const std::string& address, int port, const Credentials& credentials) {
  try {
    tls_ = MakeTlsContext(options_);
  } catch (const std::invalid_argument& error) {
    return Reason{kOptions, error.what()};
  }
  if (auto failure = Prepare(credentials)) return failure;
  // The library waits for this time before it asks a silent broker, and again for the answer.
  const auto keep_alive = static_cast<int>(options_.keep_alive.count() / 2);
  errno = 0;
  return Check(mosquitto_connect_async(client_.get(), address.c_str(), port, keep_alive));
}

Failure Link::Reached() {
  int error = 0;
  socklen_t size = sizeof error;
  getsockopt(socket(), SOL_SOCKET, SO_ERROR, &error, &size);
  // The library begins the handshake before, which may meet the error.
  const bool has_begun = ssl() != nullptr && BIO_number_written(SSL_get_wbio(ssl())) > 0;
  sockaddr_storage peer{};
  size = sizeof peer;
  const bool is_open = getpeername(socket(), reinterpret_cast<sockaddr*>(&peer), &size) == 0;
  if (!is_open && !has_begun && (error == 0 || error == EPIPE)) return Reason{kRefused, ""};
  if (error != 0) return Guess(DescribeSystemError(error));
  auto failure = Read();  // begins the handshake, or finds nothing
  return failure ? failure : Write();
}

Failure Link::Read() {
  // What the library believes to be threaded only writes in Write: so nothing is acknowledged that
  // has not been published. Otherwise it writes in Publish, and here, which takes less time.
  if (may_receive_) mosquitto_threaded_set(client_.get(), true);
  errno = 0;
  const int error = mosquitto_loop_read(client_.get(), 1);
  auto failure = Check(error);
  has_tls_ = has_tls_ || (ssl() != nullptr && SSL_is_init_finished(ssl()) != 0);
  if (connected_) mosquitto_threaded_set(client_.get(), false);
  return failure;
}

Failure Link::Write() {
  errno = 0;
  return Check(mosquitto_loop_write(client_.get(), 1));
}

Failure Link::KeepAlive() {
  errno = 0;
  return Check(mosquitto_loop_misc(client_.get()));
}

Failure Link::Check(int error) {
  if (error == MOSQ_ERR_SUCCESS) error = failed_;
  if (error == MOSQ_ERR_SUCCESS && disconnected_ == 0) return std::nullopt;
  return Guess(Describe(error));
}

// What it may mean that the broker closes the connection without a reason.
Reason Link::Guess(Reason reason) const {
  if (reason.cause != kLost) return reason;
  if (connected_) {
    return {kLost, options_.client_id.empty() ? "" : "another client may have this client_id"};
  }
  if (tls_) return {kHandshake, has_tls_ ? kOtherCertificate : kNoTls};
  return reason;
}

Reason Link::Describe(int error) const {
  const int system_error = errno;
  if (refusal_ == MQTT_RC_NOT_AUTHORIZED || refusal_ == MQTT_RC_BAD_USERNAME_OR_PASSWORD) {
    return {kCredentials, mosquitto_reason_string(refusal_)};
  }
  if (refusal_ != 0) return {kNotAccepted, mosquitto_reason_string(refusal_)};
  if (error == MOSQ_ERR_PROTOCOL || error == MOSQ_ERR_MALFORMED_PACKET ||
      error == MOSQ_ERR_NOMEM) {  // which the library has for a short packet
    return {kProtocol, ""};
  }
  if (tls_error_) return *tls_error_;
  if (disconnected_ >= kLowestError) {
    return {CauseOfDisconnect(disconnected_), mosquitto_reason_string(disconnected_)};
  }
  switch (error == MOSQ_ERR_SUCCESS ? disconnected_ : error) {
    case MOSQ_ERR_KEEPALIVE:
      return {kSilent, ""};
    case MOSQ_ERR_CONN_LOST:
    case MOSQ_ERR_NO_CONN:
      return {kLost, ""};
    case MOSQ_ERR_ERRNO:
      return DescribeSystemError(system_error);
    default:
      return {kOptions, mosquitto_strerror(error)};
  }
}

Link::Published Link::Publish(const std::string& topic, const std::string& text,
                              detail::Kind kind) {
  const bool retained = kind == detail::Kind::kState;
  if (retained && !retains_) return {0, "the broker does not retain messages"};
  int number = 0;
  const int size = static_cast<int>(std::min<std::size_t>(text.size(), MQTT_MAX_PAYLOAD + 1u));
  const int error = mosquitto_publish_v5(client_.get(), &number, topic.c_str(), size, text.data(),
                                         /*qos=*/1, retained, nullptr);
  switch (error) {
    case MOSQ_ERR_SUCCESS:
      return {number, nullptr};
    case MOSQ_ERR_OVERSIZE_PACKET:
    case MOSQ_ERR_PAYLOAD_SIZE:
      return {0, "longer than the broker allows"};
    case MOSQ_ERR_QOS_NOT_SUPPORTED:
      return {0, "the broker does not acknowledge messages"};
    default:
      failed_ = error;
      return {kNoNumber, nullptr};
  }
}

void Link::Subscribe(const std::string& topic, detail::Kind kind) {
  const int retained = kind == detail::Kind::kState ? MQTT_SUB_OPT_SEND_RETAIN_ALWAYS
                                                    : MQTT_SUB_OPT_SEND_RETAIN_NEVER;
  may_receive_ = true;
  int number = 0;
  const int error = mosquitto_subscribe_v5(client_.get(), &number, topic.c_str(), /*qos=*/1,
                                           MQTT_SUB_OPT_NO_LOCAL | retained, nullptr);
  if (error == MOSQ_ERR_SUCCESS) {
    subscribing_[number] = topic;
  } else {
    LogSubscription(topic, mosquitto_strerror(error));
  }
}

void Link::Unsubscribe(const std::string& topic) {
  mosquitto_unsubscribe(client_.get(), nullptr, topic.c_str());
}

void Link::Disconnect() {
  const int reason = options_.status_topic.empty() ? MQTT_RC_NORMAL_DISCONNECTION
                                                   : MQTT_RC_DISCONNECT_WITH_WILL_MSG;
  mosquitto_disconnect_v5(client_.get(), reason, nullptr);
}

}  // namespace zorvix::mqtt
