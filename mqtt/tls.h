// TLS: the files of the options, and what a failure means.
#ifndef ZORVIX_MQTT_TLS_H_
#define ZORVIX_MQTT_TLS_H_

#include <openssl/ssl.h>
#include <zorvix/mqtt.h>

#include <memory>
#include <string>

#include "reason.h"

namespace zorvix::mqtt {

// Details of kHandshake. Not causes, since one broker may show both by turns.
inline constexpr char kNoTls[] = "it may not speak TLS on this port";
inline constexpr char kOtherCertificate[] = "it may ask for another client certificate";

using TlsContext = std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)>;

// Returns an empty one without ca_file. It trusts the authorities of that file only and checks that
// the certificate names options.host, which must outlive it.
// Throws std::invalid_argument for files that cannot be read.
TlsContext MakeTlsContext(const Options& options);

// Returns the reason for an error, of which the client library has logged a text.
Reason DescribeTlsError(const SSL* ssl, const std::string& text);

}  // namespace zorvix::mqtt

#endif  // ZORVIX_MQTT_TLS_H_
