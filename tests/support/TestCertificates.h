#pragma once

// Throwaway certificates for TLS tests, made in memory with OpenSSL at first use. Every leaf
// names localhost, 127.0.0.1 and ::1 except wrongHost(), and is valid from an hour ago for 30
// days except expired(). Nothing here is trusted by the system, so a client trusts these only
// when told to.

#include <filesystem>
#include <string>
#include <string_view>

namespace kel::test {

/// A certificate and its private key, both PEM.
struct CertifiedKey {
  std::string certificatePem;
  std::string privateKeyPem;
};

class TestCertificates {
 public:
  /// One set for the whole test program, made thread-safely on first use. Throws
  /// std::runtime_error if OpenSSL fails.
  static const TestCertificates& shared();

  /// The authority that signs every leaf but selfSigned().
  const std::string& caCertificatePem() const noexcept { return ca_.certificatePem; }
  const CertifiedKey& localhost() const noexcept { return localhost_; }
  /// Like localhost(), with a key of its own: the server's next key after a rotation.
  const CertifiedKey& localhostRotated() const noexcept { return localhostRotated_; }
  /// Names only "wrong-host.invalid".
  const CertifiedKey& wrongHost() const noexcept { return wrongHost_; }
  /// Expired yesterday.
  const CertifiedKey& expired() const noexcept { return expired_; }
  const CertifiedKey& selfSigned() const noexcept { return selfSigned_; }

 private:
  TestCertificates();

  CertifiedKey ca_, localhost_, localhostRotated_, wrongHost_, expired_, selfSigned_;
};

/// A file with the given contents in the system's temporary directory, removed on destruction.
class TemporaryFile {
 public:
  explicit TemporaryFile(std::string_view contents, std::string_view suffix = ".pem");
  ~TemporaryFile();
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  const std::filesystem::path& path() const noexcept { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace kel::test
