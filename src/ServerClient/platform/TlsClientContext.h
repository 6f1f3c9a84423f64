#pragma once

// The TLS client side that the library's WebSocket and HTTP client share: which authorities are
// trusted, the protocol floor and how a connection checks the server's name, so that both reach
// the server under exactly the same rules.

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include <boost/asio/ssl/context.hpp>

namespace kel::platform {

/// Which certificate authorities a TLS client trusts.
struct TlsTrust {
  /// The operating system's authorities (OpenSSL's default paths).
  bool useSystemTrustStore = true;
  /// Further authorities, as PEM text: one or more certificates.
  std::string extraCertificateAuthoritiesPem;
  /// A PEM file of further authorities; none when empty.
  std::filesystem::path extraCertificateAuthoritiesFile;
};

/// A client context: TLS 1.2 or later, peer verification on, trusting `trust`. Throws
/// std::invalid_argument, its text starting with `owner` (e.g. "WebSocket"), when an authority
/// cannot be loaded.
std::shared_ptr<boost::asio::ssl::context> makeTlsClientContext(const TlsTrust& trust,
                                                                std::string_view owner);

/// Prepares one connection, before its handshake, to accept only a certificate that names
/// `host`: an IP address when `hostIsAddress`, otherwise a DNS name (no partial wildcards),
/// which is also sent as SNI. False when OpenSSL refuses the name.
bool expectServerName(SSL* ssl, const std::string& host, bool hostIsAddress);

/// Why the certificate of a failed handshake was refused ("certificate has expired", ...); empty
/// when verification was not the cause.
std::string certificateVerificationFailure(const SSL* ssl);

}  // namespace kel::platform
