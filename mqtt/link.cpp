#include "link.h"

#include <arpa/inet.h>
#include <mqtt_protocol.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

namespace zorvix {
namespace mqtt {

namespace {

constexpr int kRefused = 0x80;  // the lowest reason code of MQTT that is an error

const char* Refusal(int reason) {
  return reason < kRefused ? nullptr : mosquitto_reason_string(reason);
}

Link& Self(void* self) { return *static_cast<Link*>(self); }

bool IsAddress(const std::string& host) {
  unsigned char address[sizeof(in6_addr)];
  return inet_pton(AF_INET, host.c_str(), address) == 1 ||
         inet_pton(AF_INET6, host.c_str(), address) == 1;
}

// Never asks for a password on a terminal.
int NoPassword(char*, int, int, void*) { return 0; }

// The library is given a numeric address, and would name that to the broker.
void NameHost(const SSL* ssl, int event, int) {
  if ((event & SSL_CB_HANDSHAKE_START) == 0) return;
  void* const host = SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl));
  const bool named = !IsAddress(static_cast<const char*>(host));
  SSL_set_tlsext_host_name(const_cast<SSL*>(ssl), named ? host : nullptr);
}

void Expect(bool success, const char* what, const std::string& file) {
  if (success) return;
  ERR_clear_error();  // nobody else on this thread shall find it
  throw std::invalid_argument("MQTT: cannot use the " + std::string(what) + " " + file);
}

void CheckHost(SSL_CTX* context, const std::string& host) {
  auto* const parameters = SSL_CTX_get0_param(context);
  X509_VERIFY_PARAM_set_hostflags(parameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  const bool set = IsAddress(host)
                       ? X509_VERIFY_PARAM_set1_ip_asc(parameters, host.c_str()) == 1
                       : X509_VERIFY_PARAM_set1_host(parameters, host.c_str(), host.size()) == 1;
  Expect(set, "host name", host);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_app_data(context, const_cast<char*>(host.c_str()));
  SSL_CTX_set_info_callback(context, NameHost);
}

std::string DescribeCertificate(long result) {
  switch (result) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return "the broker's certificate has expired";
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return "the broker's certificate is for another host name";
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
    case X509_V_ERR_CERT_UNTRUSTED:
      return "the broker's certificate is from an unknown authority";
    default:
      return std::string("the broker's certificate: ") + X509_verify_cert_error_string(result);
  }
}

std::string DescribeRefusal(int reason) {
  const std::string text = mosquitto_reason_string(reason);
  if (reason == MQTT_RC_NOT_AUTHORIZED || reason == MQTT_RC_BAD_USERNAME_OR_PASSWORD) {
    return "the broker refuses the user name or password: " + text;
  }
  return "the broker refuses the connection: " + text;
}

}  // namespace

TlsContext MakeTlsContext(const Options& options) {
  TlsContext context(nullptr, SSL_CTX_free);
  if (options.ca_file.empty()) return context;
  context.reset(SSL_CTX_new(TLS_client_method()));
  if (!context) throw std::bad_alloc();
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  SSL_CTX_set_default_passwd_cb(context.get(), NoPassword);
  const bool trusts =
      SSL_CTX_load_verify_locations(context.get(), options.ca_file.c_str(), nullptr) == 1;
  Expect(trusts, "ca_file", options.ca_file);
  CheckHost(context.get(), options.host);
  if (options.certificate_file.empty()) return context;
  const char* const certificate = options.certificate_file.c_str();
  const char* const key = options.key_file.c_str();
  Expect(SSL_CTX_use_certificate_chain_file(context.get(), certificate) == 1, "certificate_file",
         options.certificate_file);
  Expect(SSL_CTX_use_PrivateKey_file(context.get(), key, SSL_FILETYPE_PEM) == 1, "key_file",
         options.key_file);
  return context;
}

bool IsLocalHost(const std::string& host) {
  in_addr address4;
  in6_addr address6;
  if (inet_pton(AF_INET, host.c_str(), &address4) == 1)
    return (ntohl(address4.s_addr) >> 24) == 127;
  if (inet_pton(AF_INET6, host.c_str(), &address6) == 1) return IN6_IS_ADDR_LOOPBACK(&address6);
  return host == "localhost";
}

Link::Link(const Options& options, const std::string& client_id)
    : options_(options),
      client_(mosquitto_new(client_id.c_str(), /*clean_session=*/false, this), mosquitto_destroy) {
  auto* const client = client_.get();
  if (client == nullptr) throw std::bad_alloc();
  mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_int_option(client, MOSQ_OPT_SEND_MAXIMUM, 0xFFFF);  // the broker has a limit of its own
  mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
  if (!options.username.empty()) {
    const char* const password = options.password.empty() ? nullptr : options.password.c_str();
    mosquitto_username_pw_set(client, options.username.c_str(), password);
  }
  SetCallbacks();
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
  mosquitto_disconnect_v5_callback_set(
      client, [](auto*, void* self, int reason, auto*) { Self(self).disconnected_ = reason; });
  mosquitto_message_callback_set(client, [](auto*, void* self, auto* message) {
    const auto size = static_cast<std::size_t>(message->payloadlen);
    const bool taken = size <= Self(self).options_.payload_limit;
    const auto* const payload = static_cast<const char*>(message->payload);
    Self(self).received.push_back({message->topic, std::string(payload, taken ? size : 0), size});
  });
  mosquitto_publish_v5_callback_set(client, [](auto*, void* self, int number, int reason, auto*) {
    Self(self).acknowledged.push_back({number, Refusal(reason)});
  });
  mosquitto_subscribe_callback_set(
      client, [](auto*, void* self, int number, int, const int* granted) {
        const auto request = Self(self).subscribing_.extract(number);
        if (!request) return;
        Self(self).subscribed.push_back({request.mapped(), Refusal(granted[0])});
      });
  mosquitto_log_callback_set(client, [](auto*, void* self, int level, const char* text) {
    if (level == MOSQ_LOG_ERR) Self(self).OnTlsError(text);
  });
}

// Errors that the library logs are those of OpenSSL; the first tells most.
void Link::OnTlsError(const char* text) {
  if (!tls_error_.empty()) return;
  const auto* const ssl = static_cast<const SSL*>(mosquitto_ssl_get(client_.get()));
  const long result = ssl == nullptr ? X509_V_OK : SSL_get_verify_result(ssl);
  tls_error_ = result == X509_V_OK ? "TLS: " + std::string(text) : DescribeCertificate(result);
}

std::string Link::Open(const std::string& address, int port) try {
  const auto tls = MakeTlsContext(options_);
  if (tls) {
    mosquitto_int_option(client_.get(), MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0);
    mosquitto_void_option(client_.get(), MOSQ_OPT_SSL_CTX, tls.get());
  }
  mosquitto_property* properties = nullptr;
  mosquitto_property_add_int32(&properties, MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                               static_cast<std::uint32_t>(options_.session_expiry.count()));
  // Only the call that blocks takes properties. With a bad port it keeps them and does nothing.
  const auto keep_alive = static_cast<int>(options_.keep_alive.count());
  mosquitto_connect_bind_v5(client_.get(), address.c_str(), /*port=*/-1, keep_alive, nullptr,
                            properties);
  mosquitto_property_free_all(&properties);
  errno = 0;
  return Why(mosquitto_connect_async(client_.get(), address.c_str(), port, keep_alive));
} catch (const std::invalid_argument& error) {
  return error.what();
}

std::string Link::Reached() {
  int error = 0;
  socklen_t size = sizeof error;
  getsockopt(socket(), SOL_SOCKET, SO_ERROR, &error, &size);
  if (error != 0) return std::strerror(error);
  const auto why = Read();  // begins the handshake, or finds nothing
  return why.empty() ? Write() : why;
}

std::string Link::Read() {
  errno = 0;
  return Why(mosquitto_loop_read(client_.get(), 1));
}

std::string Link::Write() {
  errno = 0;
  return Why(mosquitto_loop_write(client_.get(), 1));
}

std::string Link::KeepAlive() { return Why(mosquitto_loop_misc(client_.get())); }

std::string Link::Why(int error) const {
  if (error == MOSQ_ERR_SUCCESS && disconnected_ == 0) return "";
  if (refusal_ != 0) return DescribeRefusal(refusal_);
  if (!tls_error_.empty()) return tls_error_;
  if (disconnected_ >= kRefused) {
    return std::string("the broker ends the connection: ") + mosquitto_reason_string(disconnected_);
  }
  if (error == MOSQ_ERR_ERRNO && errno == EPROTO && !connected_) {
    return "TLS: the broker ends the connection; it may ask for another client certificate";
  }
  if (error == MOSQ_ERR_ERRNO && errno != 0) return std::strerror(errno);
  return mosquitto_strerror(error != 0 ? error : disconnected_);
}

const char* Link::Publish(const std::string& topic, const std::string& text, bool retained,
                          int& number) {
  number = 0;
  if (retained && !retains_) return "the broker does not retain messages";
  const int size = static_cast<int>(std::min<std::size_t>(text.size(), MQTT_MAX_PAYLOAD + 1u));
  const int error = mosquitto_publish_v5(client_.get(), &number, topic.c_str(), size, text.data(),
                                         /*qos=*/1, retained, nullptr);
  switch (error) {
    case MOSQ_ERR_OVERSIZE_PACKET:
    case MOSQ_ERR_PAYLOAD_SIZE:
      return "longer than the broker allows";
    case MOSQ_ERR_QOS_NOT_SUPPORTED:
      return "the broker does not acknowledge messages";
    default:
      return nullptr;  // it goes out with this link, or the next one
  }
}

void Link::Subscribe(const std::string& topic, bool retained) {
  const int options = MQTT_SUB_OPT_NO_LOCAL |
                      (retained ? MQTT_SUB_OPT_SEND_RETAIN_ALWAYS : MQTT_SUB_OPT_SEND_RETAIN_NEVER);
  int number = 0;
  mosquitto_subscribe_v5(client_.get(), &number, topic.c_str(), /*qos=*/1, options, nullptr);
  subscribing_[number] = topic;
}

void Link::Unsubscribe(const std::string& topic) {
  mosquitto_unsubscribe(client_.get(), nullptr, topic.c_str());
}

void Link::Disconnect() {
  mosquitto_property* properties = nullptr;
  mosquitto_property_add_int32(&properties, MQTT_PROP_SESSION_EXPIRY_INTERVAL, 0);
  mosquitto_disconnect_v5(client_.get(), MQTT_RC_NORMAL_DISCONNECTION, properties);
  mosquitto_property_free_all(&properties);
}

}  // namespace mqtt
}  // namespace zorvix
