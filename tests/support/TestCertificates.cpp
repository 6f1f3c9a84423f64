#include "support/TestCertificates.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include <unistd.h>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace kel::test {

namespace {

struct Free {
  void operator()(EVP_PKEY* p) const noexcept { EVP_PKEY_free(p); }
  void operator()(X509* p) const noexcept { X509_free(p); }
  void operator()(X509_EXTENSION* p) const noexcept { X509_EXTENSION_free(p); }
  void operator()(BIO* p) const noexcept { BIO_free(p); }
  void operator()(BIGNUM* p) const noexcept { BN_free(p); }
};
template <typename T>
using Owned = std::unique_ptr<T, Free>;

[[noreturn]] void fail(const char* what) {
  char detail[256] = "";
  ERR_error_string_n(ERR_get_error(), detail, sizeof detail);
  throw std::runtime_error(std::string("TestCertificates: ") + what + ": " + detail);
}

void check(int result, const char* what) {
  if (result <= 0) fail(what);
}

Owned<EVP_PKEY> newKey() {
  Owned<EVP_PKEY> key(EVP_EC_gen("P-256"));
  if (!key) fail("EVP_EC_gen");
  return key;
}

struct Leaf {
  const char* commonName;
  const char* subjectAltName;  // none when null
  bool certificateAuthority = false;
  long notBeforeOffset = -3600;      // seconds from now
  long notAfterOffset = 30 * 86400;  // seconds from now
};

void addExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  Owned<X509_EXTENSION> extension(X509V3_EXT_nconf_nid(nullptr, &context, nid, value));
  if (!extension) fail("X509V3_EXT_nconf_nid");
  check(X509_add_ext(certificate, extension.get(), -1), "X509_add_ext");
}

// Makes a certificate for `key` described by `leaf`, signed by `issuerKey` with `issuer`'s name,
// or self-signed when `issuer` is null.
Owned<X509> makeCertificate(const Leaf& leaf, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuerKey) {
  Owned<X509> certificate(X509_new());
  if (!certificate) fail("X509_new");
  check(X509_set_version(certificate.get(), X509_VERSION_3), "X509_set_version");

  Owned<BIGNUM> serial(BN_new());
  check(BN_rand(serial.get(), 120, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY), "BN_rand");
  if (!BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate.get()))) {
    fail("BN_to_ASN1_INTEGER");
  }
  if (!X509_gmtime_adj(X509_getm_notBefore(certificate.get()), leaf.notBeforeOffset) ||
      !X509_gmtime_adj(X509_getm_notAfter(certificate.get()), leaf.notAfterOffset)) {
    fail("X509_gmtime_adj");
  }
  check(X509_set_pubkey(certificate.get(), key), "X509_set_pubkey");

  X509_NAME* subject = X509_get_subject_name(certificate.get());
  check(X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("ServerClient tests"), -1,
                                   -1, 0),
        "X509_NAME_add_entry_by_txt");
  check(X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(leaf.commonName), -1, -1,
                                   0),
        "X509_NAME_add_entry_by_txt");
  X509* signer = issuer ? issuer : certificate.get();
  check(X509_set_issuer_name(certificate.get(), X509_get_subject_name(signer)),
        "X509_set_issuer_name");

  if (leaf.certificateAuthority) {
    addExtension(certificate.get(), signer, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(certificate.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    addExtension(certificate.get(), signer, NID_basic_constraints, "critical,CA:FALSE");
    addExtension(certificate.get(), signer, NID_key_usage, "critical,digitalSignature");
    addExtension(certificate.get(), signer, NID_ext_key_usage, "serverAuth");
  }
  addExtension(certificate.get(), signer, NID_subject_key_identifier, "hash");
  if (issuer) addExtension(certificate.get(), signer, NID_authority_key_identifier, "keyid");
  if (leaf.subjectAltName) {
    addExtension(certificate.get(), signer, NID_subject_alt_name, leaf.subjectAltName);
  }

  if (X509_sign(certificate.get(), issuer ? issuerKey : key, EVP_sha256()) <= 0) {
    fail("X509_sign");
  }
  return certificate;
}

std::string pemOf(X509* certificate) {
  Owned<BIO> bio(BIO_new(BIO_s_mem()));
  check(PEM_write_bio_X509(bio.get(), certificate), "PEM_write_bio_X509");
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

std::string pemOf(EVP_PKEY* key) {
  Owned<BIO> bio(BIO_new(BIO_s_mem()));
  check(PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr),
        "PEM_write_bio_PrivateKey");
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

constexpr const char* kLoopbackNames = "DNS:localhost,IP:127.0.0.1,IP:::1";

}  // namespace

const TestCertificates& TestCertificates::shared() {
  static const TestCertificates instance;
  return instance;
}

TestCertificates::TestCertificates() {
  const auto caKey = newKey();
  const auto ca = makeCertificate({"ServerClient Test CA", nullptr, true, -3600, 365 * 86400},
                                  caKey.get(), nullptr, nullptr);
  ca_ = {pemOf(ca.get()), pemOf(caKey.get())};

  const auto leafFor = [&](const Leaf& leaf, bool selfSigned) {
    const auto key = newKey();
    const auto certificate = selfSigned ? makeCertificate(leaf, key.get(), nullptr, nullptr)
                                        : makeCertificate(leaf, key.get(), ca.get(), caKey.get());
    return CertifiedKey{pemOf(certificate.get()), pemOf(key.get())};
  };
  localhost_ = leafFor({"localhost", kLoopbackNames}, false);
  wrongHost_ = leafFor({"wrong-host.invalid", "DNS:wrong-host.invalid"}, false);
  expired_ = leafFor({"localhost", kLoopbackNames, false, -30 * 86400, -86400}, false);
  selfSigned_ = leafFor({"localhost", kLoopbackNames}, true);
}

TemporaryFile::TemporaryFile(std::string_view contents, std::string_view suffix) {
  auto pattern =
      (std::filesystem::temp_directory_path() / ("serverclient-XXXXXX" + std::string(suffix)))
          .string();
  const int fd = mkstemps(pattern.data(), static_cast<int>(suffix.size()));
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "mkstemps");
  path_ = pattern;
  std::size_t written = 0;
  while (written < contents.size()) {
    const auto n = ::write(fd, contents.data() + written, contents.size() - written);
    if (n < 0) {
      const int error = errno;
      ::close(fd);
      throw std::system_error(error, std::generic_category(), "write");
    }
    written += static_cast<std::size_t>(n);
  }
  ::close(fd);
}

TemporaryFile::~TemporaryFile() {
  if (path_.empty()) return;
  std::error_code ignored;
  std::filesystem::remove(path_, ignored);
}

TemporaryFile::TemporaryFile(TemporaryFile&& other) noexcept
    : path_(std::exchange(other.path_, {})) {}

TemporaryFile& TemporaryFile::operator=(TemporaryFile&& other) noexcept {
  if (this != &other) {
    if (!path_.empty()) {
      std::error_code ignored;
      std::filesystem::remove(path_, ignored);
    }
    path_ = std::exchange(other.path_, {});
  }
  return *this;
}

}  // namespace kel::test
