#include "ServerClient/platform/TlsClientContext.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <tuple>

#include <boost/asio/buffer.hpp>
#include <boost/system/error_code.hpp>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include "ServerClient/Log/ServerLog.h"

namespace kel::platform {

namespace ssl = boost::asio::ssl;

namespace {

constexpr std::string_view kPinPrefix = "sha256/";
using KeyHash = std::array<unsigned char, 32>;

// The pins of one context, decoded once; they live as long as the context (see
// makeTlsClientContext), which OpenSSL hands them back with at every handshake.
struct Pinning {
  std::vector<KeyHash> pins;
  std::vector<KeyHash> backupPins;
};

struct PinnedContext {
  ssl::context context{ssl::context::tls_client};
  Pinning pinning;
};

std::optional<KeyHash> decodePin(std::string_view text) {
  if (text.starts_with(kPinPrefix)) text.remove_prefix(kPinPrefix.size());
  // 32 bytes are 43 base64 characters and one '='.
  if (text.size() != 44 || text[42] == '=' || text[43] != '=') return std::nullopt;
  std::array<unsigned char, 33> decoded{};
  if (EVP_DecodeBlock(decoded.data(), reinterpret_cast<const unsigned char*>(text.data()),
                      static_cast<int>(text.size())) != 33) {
    return std::nullopt;
  }
  KeyHash hash;
  std::copy_n(decoded.begin(), hash.size(), hash.begin());
  return hash;
}

std::optional<KeyHash> keyHashOf(X509* certificate) {
  unsigned char* der = nullptr;
  const int size = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate), &der);
  if (size <= 0) return std::nullopt;
  KeyHash hash;
  unsigned int length = 0;
  const bool ok =
      EVP_Digest(der, static_cast<std::size_t>(size), hash.data(), &length, EVP_sha256(), nullptr);
  OPENSSL_free(der);
  if (!ok || length != hash.size()) return std::nullopt;
  return hash;
}

std::string pinText(const KeyHash& hash) {
  std::array<unsigned char, 45> text{};
  EVP_EncodeBlock(text.data(), hash.data(), static_cast<int>(hash.size()));
  return std::string(kPinPrefix) + reinterpret_cast<const char*>(text.data());
}

// Replaces OpenSSL's chain verification for a pinning context: the usual verification first
// (authorities, dates, the expected name), then the pins over the chain it verified.
int verifyChainAndPins(X509_STORE_CTX* store, void* argument) {
  const auto& pinning = *static_cast<const Pinning*>(argument);
  if (X509_verify_cert(store) != 1) return 0;
  bool pinned = false;
  bool backupPinned = false;
  STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(store);
  for (int i = 0; i < sk_X509_num(chain); ++i) {
    const auto hash = keyHashOf(sk_X509_value(chain, i));
    if (!hash) continue;
    const auto in = [&](const std::vector<KeyHash>& set) {
      return std::find(set.begin(), set.end(), *hash) != set.end();
    };
    pinned = pinned || in(pinning.pins);
    backupPinned = backupPinned || in(pinning.backupPins);
  }
  if (pinned) return 1;
  if (backupPinned) {
    const auto* connection = static_cast<const SSL*>(
        X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
    const char* name =
        connection ? SSL_get_servername(connection, TLSEXT_NAMETYPE_host_name) : nullptr;
    KEL_LOG_DEBUG("verifyChainAndPins", std::string("The server ") +
                                            (name ? name : "(by address)") +
                                            " presented a key pinned only as a backup: the "
                                            "rotation has happened, make that pin a primary one");
    return 1;
  }
  X509_STORE_CTX_set_error(store, X509_V_ERR_APPLICATION_VERIFICATION);
  return 0;
}

std::vector<KeyHash> decodePins(const std::vector<std::string>& texts, const std::string& prefix) {
  std::vector<KeyHash> hashes;
  for (const auto& text : texts) {
    const auto hash = decodePin(text);
    if (!hash) {
      throw std::invalid_argument(prefix + "the certificate pin \"" + text +
                                  "\" is not the base64 text of a SHA-256 hash");
    }
    hashes.push_back(*hash);
  }
  return hashes;
}

// What makes two contexts interchangeable. An authority file counts with its modification time,
// so a replaced file is read again.
using TrustKey = std::tuple<bool, std::string, std::string, std::filesystem::file_time_type,
                            std::vector<std::string>, std::vector<std::string>>;

TrustKey keyOf(const TlsTrust& trust) {
  std::error_code ignored;  // a missing file fails later, when the context loads it
  const auto written =
      trust.extraCertificateAuthoritiesFile.empty()
          ? std::filesystem::file_time_type{}
          : std::filesystem::last_write_time(trust.extraCertificateAuthoritiesFile, ignored);
  return {trust.useSystemTrustStore,
          trust.extraCertificateAuthoritiesPem,
          trust.extraCertificateAuthoritiesFile.string(),
          written,
          trust.pins.pins,
          trust.pins.backupPins};
}

std::shared_ptr<ssl::context> buildContext(const TlsTrust& trust, std::string_view owner) {
  const std::string prefix = std::string(owner) + ": ";
  auto holder = std::make_shared<PinnedContext>();
  holder->pinning.pins = decodePins(trust.pins.pins, prefix);
  holder->pinning.backupPins = decodePins(trust.pins.backupPins, prefix);
  // The context shares the holder's lifetime, so the pins outlive every handshake.
  std::shared_ptr<ssl::context> context(holder, &holder->context);
  SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
  // Asio's context verifies nothing unless told to.
  context->set_verify_mode(ssl::verify_peer);
  if (!trust.pins.empty()) {
    SSL_CTX_set_cert_verify_callback(context->native_handle(), verifyChainAndPins,
                                     &holder->pinning);
  }
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

}  // namespace

std::shared_ptr<ssl::context> makeTlsClientContext(const TlsTrust& trust, std::string_view owner) {
  // The system's authorities cost some 800 KiB per context, so the clients of one process that
  // trust alike (the facade's HTTP client and each of its WebSockets) share one context while any
  // of them holds it. A context is read-only once built, and OpenSSL lets threads share it.
  static std::mutex mutex;
  static std::map<TrustKey, std::weak_ptr<ssl::context>> built;
  auto key = keyOf(trust);
  std::lock_guard lock(mutex);
  if (auto found = built.find(key); found != built.end()) {
    if (auto context = found->second.lock()) return context;
  }
  std::erase_if(built, [](const auto& entry) { return entry.second.expired(); });
  auto context = buildContext(trust, owner);
  built.emplace(std::move(key), context);
  return context;
}

bool expectServerName(SSL* ssl, const std::string& host, bool hostIsAddress) {
  if (hostIsAddress) return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host.c_str()) == 1;
  std::string serverName = host;  // OpenSSL's macro wants it mutable
  if (SSL_set_tlsext_host_name(ssl, serverName.data()) != 1) return false;
  SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return SSL_set1_host(ssl, host.c_str()) == 1;
}

bool isCertificatePinMismatch(const SSL* ssl) {
  // Only the pinning verification sets this code.
  return SSL_get_verify_result(ssl) == X509_V_ERR_APPLICATION_VERIFICATION;
}

std::string certificateVerificationFailure(const SSL* ssl) {
  const auto result = SSL_get_verify_result(ssl);
  if (result == X509_V_OK) return {};
  if (isCertificatePinMismatch(ssl)) {
    return "certificate pin mismatch: no key of the server's certificate chain is pinned";
  }
  return X509_verify_cert_error_string(result);
}

std::string certificatePin(std::string_view certificatePem) {
  BIO* bio = BIO_new_mem_buf(certificatePem.data(), static_cast<int>(certificatePem.size()));
  X509* certificate = bio ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr) : nullptr;
  BIO_free(bio);
  const auto hash = certificate ? keyHashOf(certificate) : std::nullopt;
  X509_free(certificate);
  if (!hash) throw std::invalid_argument("certificatePin: the text holds no PEM certificate");
  return pinText(*hash);
}

}  // namespace kel::platform
