// Why there is no connection.
#ifndef ZORVIX_MQTT_REASON_H_
#define ZORVIX_MQTT_REASON_H_

#include <optional>
#include <string>

namespace zorvix::mqtt {

// Reasons with the same cause are the same, whatever the details.
struct Reason {
  std::string text() const { return detail.empty() ? cause : cause + (": " + detail); }
  const char* cause;  // one of the following, compared by address
  std::string detail;
};
using Failure = std::optional<Reason>;

inline constexpr char kUnknownHost[] = "the host is unknown";
inline constexpr char kUnreachable[] = "the host cannot be reached";
inline constexpr char kRefused[] = "the host refuses the connection";
inline constexpr char kNoAnswer[] = "the broker does not answer";

inline constexpr char kHandshake[] = "the broker ends the TLS handshake";
inline constexpr char kExpired[] = "the broker's certificate has expired";
inline constexpr char kUnknownAuthority[] = "the broker's certificate is from an unknown authority";
inline constexpr char kOtherHost[] = "the broker's certificate is for another host name";
inline constexpr char kTls[] = "TLS";

inline constexpr char kCredentials[] = "the broker refuses the user name or password";
inline constexpr char kNotAccepted[] = "the broker refuses the connection";
inline constexpr char kTakenOver[] = "another client connects with this client_id";
inline constexpr char kEnded[] = "the broker ends the connection";
inline constexpr char kRefusesMessage[] = "the broker refuses what it was sent";
inline constexpr char kLost[] = "the connection was closed by the other side";
inline constexpr char kSilent[] = "the broker is silent for longer than keep_alive";
inline constexpr char kProtocol[] = "the broker breaks the protocol";

inline constexpr char kOptions[] = "it cannot be tried with these options";
inline constexpr char kClosed[] = "closed";

}  // namespace zorvix::mqtt

#endif  // ZORVIX_MQTT_REASON_H_
