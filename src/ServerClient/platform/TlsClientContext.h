#pragma once

/// @file
/// The TLS client side that the library's WebSocket and HTTP client share: which authorities are
/// trusted, which server keys are pinned, the protocol floor and how a connection checks the
/// server's name, so that both reach the server under exactly the same rules.

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/ssl/context.hpp>

#include "ServerClient/platform/CertificatePins.h"

namespace kel::platform {

/// What a TLS client trusts.
struct TlsTrust {
  /// The operating system's authorities (OpenSSL's default paths).
  bool useSystemTrustStore = true;
  /// Further authorities, as PEM text: one or more certificates.
  std::string extraCertificateAuthoritiesPem;
  /// A PEM file of further authorities; none when empty.
  std::filesystem::path extraCertificateAuthoritiesFile;
  /// Keys the server's chain must hold; none by default.
  CertificatePins pins{};
};

/// A handshake refused because the server's certificate chain, valid otherwise, holds none of
/// the pinned keys. what() names the server; a client never tries that server again on its own,
/// as no retry can make the key match.
class CertificatePinMismatch : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A client context: TLS 1.2 or later, peer verification on, trusting `trust`. Calls with equal
/// trust (an authority file counting with its modification time) return the same context while
/// any caller still holds it, as each copy of the system's authorities costs some 800 KiB. Throws
/// std::invalid_argument, its text starting with `owner` (e.g. "WebSocket"), when an authority
/// cannot be loaded or a pin is not the base64 text of 32 bytes.
std::shared_ptr<boost::asio::ssl::context> makeTlsClientContext(const TlsTrust& trust,
                                                                std::string_view owner);

/// Prepares one connection, before its handshake, to accept only a certificate that names
/// `host`: an IP address when `hostIsAddress`, otherwise a DNS name (no partial wildcards),
/// which is also sent as SNI. False when OpenSSL refuses the name.
bool expectServerName(SSL* ssl, const std::string& host, bool hostIsAddress);

/// Why the certificate of a failed handshake was refused ("certificate has expired", ...); empty
/// when verification was not the cause.
std::string certificateVerificationFailure(const SSL* ssl);

/// True when a failed handshake was refused only because no key of the chain is pinned.
bool isCertificatePinMismatch(const SSL* ssl);

/// The pin of a PEM certificate's public key: "sha256/" and the base64 SHA-256 hash of its DER
/// SubjectPublicKeyInfo. Throws std::invalid_argument when the text holds no certificate.
std::string certificatePin(std::string_view certificatePem);

}  // namespace kel::platform
