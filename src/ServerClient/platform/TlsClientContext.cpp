#include "ServerClient/platform/TlsClientContext.h"

#include <stdexcept>

#include <boost/asio/buffer.hpp>
#include <boost/system/error_code.hpp>

#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

namespace kel::platform {

namespace ssl = boost::asio::ssl;

std::shared_ptr<ssl::context> makeTlsClientContext(const TlsTrust& trust, std::string_view owner) {
  const std::string prefix = std::string(owner) + ": ";
  auto context = std::make_shared<ssl::context>(ssl::context::tls_client);
  SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
  // Asio's context verifies nothing unless told to.
  context->set_verify_mode(ssl::verify_peer);
  boost::system::error_code ec;
  if (trust.useSystemTrustStore) {
    context->set_default_verify_paths(ec);
    if (ec) throw std::invalid_argument(prefix + "the system's trust store: " + ec.message());
  }
  if (!trust.extraCertificateAuthoritiesPem.empty()) {
    context->add_certificate_authority(boost::asio::buffer(trust.extraCertificateAuthoritiesPem),
                                       ec);
    if (ec) throw std::invalid_argument(prefix + "extra certificate authorities: " + ec.message());
  }
  if (!trust.extraCertificateAuthoritiesFile.empty()) {
    context->load_verify_file(trust.extraCertificateAuthoritiesFile.string(), ec);
    if (ec) {
      throw std::invalid_argument(prefix + "certificate authority file \"" +
                                  trust.extraCertificateAuthoritiesFile.string() +
                                  "\": " + ec.message());
    }
  }
  return context;
}

bool expectServerName(SSL* ssl, const std::string& host, bool hostIsAddress) {
  if (hostIsAddress) return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host.c_str()) == 1;
  std::string serverName = host;  // OpenSSL's macro wants it mutable
  if (SSL_set_tlsext_host_name(ssl, serverName.data()) != 1) return false;
  SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return SSL_set1_host(ssl, host.c_str()) == 1;
}

std::string certificateVerificationFailure(const SSL* ssl) {
  const auto result = SSL_get_verify_result(ssl);
  if (result == X509_V_OK) return {};
  return X509_verify_cert_error_string(result);
}

}  // namespace kel::platform
