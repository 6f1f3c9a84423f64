// Pinned server keys through the facade: the HTTPS sign-in and the WSS socket, against the
// emulator serving certificates of the test authority, across a key rotation.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/url/parse.hpp>

#include "ServerClient/Client/KelServer.h"
#include "ServerClient/Socket/SocketConnector.h"
#include "ServerClient/platform/InMemoryKeychain.h"
#include "ServerClient/platform/TlsClientContext.h"
#include "emulator/Emulator.h"
#include "support/LogCapture.h"
#include "support/StreamRecorder.h"
#include "support/TestCertificates.h"

namespace kel {
namespace {

using platform::certificatePin;
using testing::await;
using ::testing::HasSubstr;

const test::CertifiedKey& oldKey() {
  return test::TestCertificates::shared().localhost();
}
const test::CertifiedKey& newKey() {
  return test::TestCertificates::shared().localhostRotated();
}

std::unique_ptr<emulator::Emulator> serve(const test::CertifiedKey& leaf, emulator::Urls& urls) {
  auto emulator = std::make_unique<emulator::Emulator>(
      emulator::Options{.tls = emulator::TlsOptions{leaf.certificatePem, leaf.privateKeyPem}});
  emulator->addAccount(emulator::defaultAccount("pia", "pia-outside"));
  urls = emulator->start();
  return emulator;
}

class CertificatePinningTest : public ::testing::Test {
 protected:
  std::shared_ptr<KelServer> facade(const emulator::Urls& signIn, const emulator::Urls& socket,
                                    platform::CertificatePins pins) {
    KelServer::Options options;
    options.keychain = keychain_;
    options.userDefaults = defaults_;
    options.trust.extraCertificateAuthoritiesPem =
        test::TestCertificates::shared().caCertificatePem();
    options.trust.pins = std::move(pins);
    return KelServer::create(boost::urls::parse_absolute_uri(signIn.kelURL).value(),
                             boost::urls::parse_absolute_uri(socket.socketURL).value(), "1.0.0",
                             "PINS", options);
  }

  std::shared_ptr<platform::InMemoryKeychain> keychain_ =
      std::make_shared<platform::InMemoryKeychain>();
  std::shared_ptr<platform::InMemoryUserDefaults> defaults_ =
      std::make_shared<platform::InMemoryUserDefaults>();
};

TEST_F(CertificatePinningTest, OnlyAChainWithAPinnedKeyIsAccepted) {
  const auto oldPin = certificatePin(oldKey().certificatePem);
  const auto newPin = certificatePin(newKey().certificatePem);
  const auto caPin = certificatePin(test::TestCertificates::shared().caCertificatePem());
  struct Case {
    const char* what;
    const test::CertifiedKey& served;
    platform::CertificatePins pins;
    bool accepted;
  };
  const Case cases[] = {
      {"the key in use is pinned", oldKey(), {{oldPin}, {newPin}}, true},
      {"after the rotation, through the backup pin", newKey(), {{oldPin}, {newPin}}, true},
      {"the authority's key pins what it signs", newKey(), {{caPin}, {}}, true},
      {"rotated to a key pinned nowhere", newKey(), {{oldPin}, {}}, false},
      {"only a backup pin, another key", oldKey(), {{}, {newPin}}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    emulator::Urls urls;
    const auto emulator = serve(c.served, urls);
    const auto server = facade(urls, urls, c.pins);
    if (c.accepted) {
      EXPECT_EQ("pia", await(server->connect("pia-outside")).user.userId);
      continue;
    }
    try {
      await(server->connect("pia-outside"));
      ADD_FAILURE() << "signed in";
    } catch (const GenericError& error) {
      // The HTTPS sign-in is refused first, naming the server; nothing reached it.
      EXPECT_TRUE(isCertificatePinMismatch(std::make_exception_ptr(error))) << error.what();
      EXPECT_THAT(error.what(), HasSubstr("https://127.0.0.1:" + std::to_string(urls.port)));
      EXPECT_THAT(error.what(), HasSubstr("certificate pin mismatch"));
      EXPECT_TRUE(emulator->signIn().attempts().empty());
    }
  }
}

TEST_F(CertificatePinningTest, TheSocketIsPinnedToo) {
  // Sign-in at a server with the pinned key, socket at one whose key is not pinned.
  emulator::Urls pinnedUrls, otherUrls;
  const auto pinned = serve(oldKey(), pinnedUrls);
  const auto other = serve(newKey(), otherUrls);
  const auto server =
      facade(pinnedUrls, otherUrls, {{certificatePin(oldKey().certificatePem)}, {}});
  try {
    await(server->connect("pia-outside"));
    ADD_FAILURE() << "signed in";
  } catch (const GenericError& error) {
    // At once, rather than when the connection wait runs out.
    EXPECT_TRUE(isCertificatePinMismatch(std::make_exception_ptr(error))) << error.what();
    EXPECT_THAT(error.what(), HasSubstr("wss://127.0.0.1:" + std::to_string(otherUrls.port)));
    EXPECT_THAT(error.what(), HasSubstr("certificate pin mismatch"));
  }
  EXPECT_EQ(1u, pinned->signIn().attempts().size());
}

TEST_F(CertificatePinningTest, ARestoreRefusedForItsPinIsNotRetried) {
  emulator::Urls urls;
  auto emulator = serve(oldKey(), urls);
  const auto oldPin = certificatePin(oldKey().certificatePem);
  await(facade(urls, urls, {{oldPin}, {}})->connect("pia-outside"));
  // The server moves to a key that the application never pinned.
  emulator = serve(newKey(), urls);
  const auto server = facade(urls, urls, {{oldPin}, {}});
  testing::LogCapture log;
  EXPECT_THROW(await(server->restoreSession(false)), GenericError);
  EXPECT_EQ(1u, log.count("Should retry restoring KEL session >> false"));
  EXPECT_EQ(0u, log.count("Should retry restoring KEL session >> true"));
}

TEST_F(CertificatePinningTest, TrustIsRefusedBesideAdaptersOfTheApplication) {
  KelServer::Options options;
  options.trust.pins.pins = {certificatePin(oldKey().certificatePem)};
  options.httpClient = std::make_shared<platform::InMemoryHTTPClient>();
  EXPECT_THROW(KelServer::create(boost::urls::url("https://localhost"),
                                 boost::urls::url("wss://localhost/ws"), "1.0.0", "PINS", options),
               std::invalid_argument);
  options.httpClient = nullptr;
  options.trust.pins.pins = {"sha256/not-a-hash"};
  EXPECT_THROW(KelServer::create(boost::urls::url("https://localhost"),
                                 boost::urls::url("wss://localhost/ws"), "1.0.0", "PINS", options),
               std::invalid_argument);
}

TEST_F(CertificatePinningTest, ClientsThatTrustAlikeShareOneContextWhileItIsHeld) {
  platform::TlsTrust trust;
  trust.extraCertificateAuthoritiesPem = test::TestCertificates::shared().caCertificatePem();
  auto first = platform::makeTlsClientContext(trust, "HTTP client");
  EXPECT_EQ(first, platform::makeTlsClientContext(trust, "WebSocket"));
  auto pinned = trust;
  pinned.pins.backupPins = {certificatePin(oldKey().certificatePem)};
  EXPECT_NE(first, platform::makeTlsClientContext(pinned, "WebSocket"));
  const std::weak_ptr<boost::asio::ssl::context> released = first;
  first.reset();
  EXPECT_TRUE(released.expired());
}

}  // namespace
}  // namespace kel
