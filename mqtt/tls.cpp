#include "tls.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <new>
#include <stdexcept>

namespace zorvix::mqtt {

namespace {

// Never asks for a password on a terminal.
int NoPassword(char*, int, int, void*) { return 0; }

// The client library is given a numeric address, and would name that to the broker. Names nothing
// if the host is an address.
void NameHost(const SSL* ssl, int event, int) {
  if ((event & SSL_CB_HANDSHAKE_START) == 0) return;
  SSL_set_tlsext_host_name(const_cast<SSL*>(ssl), SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
}

void Expect(bool success, const char* what, const std::string& file) {
  if (success) return;
  ERR_clear_error();  // nobody else on this thread shall find it
  throw std::invalid_argument("MQTT: cannot use the " + std::string(what) + " " + file);
}

void CheckHost(SSL_CTX* context, const std::string& host) {
  auto* const parameters = SSL_CTX_get0_param(context);
  X509_VERIFY_PARAM_set_hostflags(
      parameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_info_callback(context, NameHost);
  if (X509_VERIFY_PARAM_set1_ip_asc(parameters, host.c_str()) == 1) return;
  const bool is_set = X509_VERIFY_PARAM_set1_host(parameters, host.c_str(), host.size()) == 1;
  Expect(is_set, "host name", host);
  SSL_CTX_set_app_data(context, const_cast<char*>(host.c_str()));
}

Reason DescribeCertificate(long result) {
  switch (result) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return {kExpired, ""};
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return {kOtherHost, ""};
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
    case X509_V_ERR_CERT_UNTRUSTED:
      return {kUnknownAuthority, ""};
    default:
      return {kTls,
              std::string("the broker's certificate: ") + X509_verify_cert_error_string(result)};
  }
}

}  // namespace

TlsContext MakeTlsContext(const Options& options) {
  TlsContext context(nullptr, SSL_CTX_free);
  if (options.ca_file.empty()) return context;
  context.reset(SSL_CTX_new(TLS_client_method()));
  if (!context) throw std::bad_alloc();
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  SSL_CTX_set_default_passwd_cb(context.get(), NoPassword);
  const bool is_trusted =
      SSL_CTX_load_verify_locations(context.get(), options.ca_file.c_str(), nullptr) == 1;
  Expect(is_trusted, "ca_file", options.ca_file);
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

Reason DescribeTlsError(const SSL* ssl, const std::string& text) {
  const long result = ssl == nullptr ? X509_V_OK : SSL_get_verify_result(ssl);
  if (result != X509_V_OK) return DescribeCertificate(result);
  if (text.find("unexpected eof") != std::string::npos) return {kLost, ""};
  if (text.find("wrong version number") != std::string::npos) return {kHandshake, kNoTls};
  for (const char* const part :
       {"certificate required", "handshake failure", "alert bad certificate", "alert unknown ca",
        "alert certificate"}) {
    if (text.find(part) != std::string::npos) return {kHandshake, kOtherCertificate};
  }
  return {kTls, text};
}

}  // namespace zorvix::mqtt
