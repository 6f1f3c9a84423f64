#include "support/TestCertificates.h"

#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

#include <unistd.h>

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
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

// OpenSSL's calls answer 1 (or a pointer) on success, 0 or less (or null) on failure.
template <typename R>
R check(R result, const char* what) {
  if constexpr (std::is_pointer_v<R>) {
    if (result) return result;
  } else {
    if (result > 0) return result;
  }
  char detail[256] = "";
  ERR_error_string_n(ERR_get_error(), detail, sizeof detail);
  throw std::runtime_error(std::string("TestCertificates: ") + what + ": " + detail);
}

struct Leaf {
  const char* commonName;
  const char* subjectAltName;  // none when null
  bool certificateAuthority = false;
  long notBeforeOffset = -3600;      // seconds from now
  long notAfterOffset = 30 * 86400;  // seconds from now
};

// A certificate for `key` described by `leaf`, signed by `issuerKey` with `issuer`'s name, or
// self-signed when `issuer` is null.
Owned<X509> makeCertificate(const Leaf& leaf, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuerKey) {
  Owned<X509> owned(check(X509_new(), "X509_new"));
  X509* certificate = owned.get();
  check(X509_set_version(certificate, X509_VERSION_3), "X509_set_version");
  Owned<BIGNUM> serial(check(BN_new(), "BN_new"));
  check(BN_rand(serial.get(), 120, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY), "BN_rand");
  check(BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate)), "serial");
  check(X509_gmtime_adj(X509_getm_notBefore(certificate), leaf.notBeforeOffset), "notBefore");
  check(X509_gmtime_adj(X509_getm_notAfter(certificate), leaf.notAfterOffset), "notAfter");
  check(X509_set_pubkey(certificate, key), "X509_set_pubkey");
  X509_NAME* subject = X509_get_subject_name(certificate);
  const std::pair<const char*, const char*> names[] = {{"O", "ServerClient tests"},
                                                       {"CN", leaf.commonName}};
  for (const auto& [field, value] : names) {
    check(X509_NAME_add_entry_by_txt(subject, field, MBSTRING_ASC,
                                     reinterpret_cast<const unsigned char*>(value), -1, -1, 0),
          "X509_NAME_add_entry_by_txt");
  }
  X509* signer = issuer ? issuer : certificate;
  check(X509_set_issuer_name(certificate, X509_get_subject_name(signer)), "X509_set_issuer_name");

  const auto extend = [&](int nid, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, signer, certificate, nullptr, nullptr, 0);
    Owned<X509_EXTENSION> extension(
        check(X509V3_EXT_nconf_nid(nullptr, &context, nid, value), "X509V3_EXT_nconf_nid"));
    check(X509_add_ext(certificate, extension.get(), -1), "X509_add_ext");
  };
  if (leaf.certificateAuthority) {
    extend(NID_basic_constraints, "critical,CA:TRUE");
    extend(NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    extend(NID_basic_constraints, "critical,CA:FALSE");
    extend(NID_key_usage, "critical,digitalSignature");
    extend(NID_ext_key_usage, "serverAuth");
  }
  extend(NID_subject_key_identifier, "hash");
  if (issuer) extend(NID_authority_key_identifier, "keyid");
  if (leaf.subjectAltName) extend(NID_subject_alt_name, leaf.subjectAltName);
  check(X509_sign(certificate, issuer ? issuerKey : key, EVP_sha256()), "X509_sign");
  return owned;
}

template <typename Write>
std::string pem(Write write) {
  Owned<BIO> bio(check(BIO_new(BIO_s_mem()), "BIO_new"));
  check(write(bio.get()), "PEM_write_bio");
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

CertifiedKey pemOf(X509* certificate, EVP_PKEY* key) {
  return {pem([&](BIO* bio) { return PEM_write_bio_X509(bio, certificate); }), pem([&](BIO* bio) {
            return PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
          })};
}

constexpr const char* kLoopbackNames = "DNS:localhost,IP:127.0.0.1,IP:::1";

}  // namespace

const TestCertificates& TestCertificates::shared() {
  static const TestCertificates instance;
  return instance;
}

TestCertificates::TestCertificates() {
  const auto newKey = [] { return Owned<EVP_PKEY>(check(EVP_EC_gen("P-256"), "EVP_EC_gen")); };
  const auto caKey = newKey();
  const auto ca = makeCertificate({"ServerClient Test CA", nullptr, true, -3600, 365 * 86400},
                                  caKey.get(), nullptr, nullptr);
  ca_ = pemOf(ca.get(), caKey.get());
  const auto leafFor = [&](const Leaf& leaf, bool selfSigned) {
    const auto key = newKey();
    return pemOf(selfSigned ? makeCertificate(leaf, key.get(), nullptr, nullptr).get()
                            : makeCertificate(leaf, key.get(), ca.get(), caKey.get()).get(),
                 key.get());
  };
  localhost_ = leafFor({"localhost", kLoopbackNames}, false);
  localhostRotated_ = leafFor({"localhost", kLoopbackNames}, false);
  wrongHost_ = leafFor({"wrong-host.invalid", "DNS:wrong-host.invalid"}, false);
  expired_ = leafFor({"localhost", kLoopbackNames, false, -30 * 86400, -86400}, false);
  selfSigned_ = leafFor({"localhost", kLoopbackNames}, true);
}

TemporaryFile::TemporaryFile(std::string_view contents, std::string_view suffix) {
  auto pattern =
      (std::filesystem::temp_directory_path() / ("serverclient-XXXXXX" + std::string(suffix)))
          .string();
  const int fd = ::mkstemps(pattern.data(), static_cast<int>(suffix.size()));
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "mkstemps");
  ::close(fd);
  path_ = pattern;
  std::ofstream(path_, std::ios::binary) << contents;
}

TemporaryFile::~TemporaryFile() {
  std::error_code ignored;
  std::filesystem::remove(path_, ignored);
}

}  // namespace kel::test
