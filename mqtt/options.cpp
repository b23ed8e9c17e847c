// What a connection's options must fulfil.
#include <arpa/inet.h>
#include <mosquitto.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>

#include "connection.h"
#include "tls.h"

namespace zorvix::mqtt {

namespace {

constexpr std::size_t kMaxTextSize = 0xFFFF;        // of MQTT
constexpr std::size_t kMaxPayloadSize = 0xFFFFFFF;  // of MQTT

void Require(bool is_fulfilled, const std::string& what) {
  if (!is_fulfilled) throw std::invalid_argument("MQTT: " + what);
}

// UTF-8 without control characters.
bool IsText(const std::string& text) {
  return text.size() <= kMaxTextSize &&
         mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

bool IsTopic(const std::string& topic) {
  return !topic.empty() && topic.front() != '$' && IsText(topic) &&
         mosquitto_pub_topic_check2(topic.data(), topic.size()) == MOSQ_ERR_SUCCESS;
}

bool IsLocalHost(const std::string& host) {
  in_addr address4;
  in6_addr address6;
  if (inet_pton(AF_INET, host.c_str(), &address4) == 1) {
    return (ntohl(address4.s_addr) >> 24) == 127;
  }
  if (inet_pton(AF_INET6, host.c_str(), &address6) == 1) return IN6_IS_ADDR_LOOPBACK(&address6);
  return host == "localhost";
}

// A hostile packet ends the process in older ones.
bool IsLibrarySafe() { return mosquitto_lib_version(nullptr, nullptr, nullptr) >= 2'000'016; }

void CheckSecurity(const Options& options) {
  const bool has_tls = !options.ca_file.empty();
  const bool is_local = IsLocalHost(options.host);
  const bool has_credentials =
      !options.username.empty() || !options.password.empty() || options.credentials;
  Require(!has_credentials || has_tls || is_local || options.allow_plaintext_password,
          "user name and password need ca_file, since they would be sent unencrypted");
  Require(has_tls || is_local || IsLibrarySafe(),
          "another host needs ca_file, since packets of anybody could crash libmosquitto before "
          "2.0.16");
  Require(options.certificate_file.empty() == options.key_file.empty(),
          "certificate_file and key_file belong together");
  Require(options.certificate_file.empty() || has_tls, "certificate_file needs ca_file");
  MakeTlsContext(options);
}

void CheckTexts(const Options& options) {
  struct Row {
    const char* name;
    const std::string& text;
  };
  for (const auto& [name, text] :
       {Row{"host", options.host}, Row{"client_id", options.client_id},
        Row{"ca_file", options.ca_file}, Row{"certificate_file", options.certificate_file},
        Row{"key_file", options.key_file}, Row{"topic_prefix", options.topic_prefix}}) {
    Require(IsText(text), std::string(name) + " is not valid UTF-8, or too long");
  }
  Require(!options.host.empty(), "there is no host");
  const auto failure = CheckCredentials({options.username, options.password});
  if (failure) Require(false, failure->detail);
  Require(!options.credentials || options.username.empty(), "credentials replace the username");
  Require(options.status_topic.empty() || !options.last_will,
          "a status_topic takes the place of the last_will");
  Require(options.status_topic.empty() || IsTopic(options.topic_prefix + options.status_topic),
          "the status_topic is not allowed");
  if (!options.last_will) return;
  Require(IsTopic(options.topic_prefix + options.last_will->topic),
          "the topic of the last_will is not allowed");
  Require(options.last_will->text.size() <= kMaxTextSize, "the last_will is too long");
}

}  // namespace

Failure CheckCredentials(const Credentials& credentials) {
  const auto& [username, password] = credentials;
  if (!IsText(username)) return Reason{kOptions, "the username is not valid UTF-8, or too long"};
  if (!password.empty() && username.empty()) return Reason{kOptions, "a password needs a username"};
  const bool has_zero = password.find('\0') != std::string::npos;
  if (!has_zero && password.size() <= kMaxTextSize) return std::nullopt;
  return Reason{kOptions, "the password is too long, or has a zero"};
}

void CheckOptions(const Options& options) {
  using std::chrono::seconds;
  CheckTexts(options);
  Require(options.port >= 0 && options.port <= 0xFFFF, "the port is out of range");
  Require(options.keep_alive >= seconds(10) && options.keep_alive <= seconds(0xFFFF),
          "keep_alive is out of range");
  Require(options.session_expiry.count() >= 0 && options.session_expiry.count() < 0xFFFFFFFF,
          "session_expiry is out of range");
  Require(options.max_reconnect_delay.count() > 0, "max_reconnect_delay is out of range");
  Require(options.close_timeout.count() >= 0, "close_timeout is out of range");
  Require(options.max_payload_size <= kMaxPayloadSize, "max_payload_size is out of range");
  CheckSecurity(options);
}

std::string CheckedTopic(const std::string& prefix, const std::string& name,
                         const std::string& mqtt_topic) {
  const auto& own_part = mqtt_topic.empty() ? name : mqtt_topic;
  auto topic = prefix + own_part;
  Require(!own_part.empty() && IsTopic(topic), "the topic \"" + topic + "\" is not allowed");
  return topic;
}

}  // namespace zorvix::mqtt
