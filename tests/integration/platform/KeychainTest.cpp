// The Secret Service keychain against a real gnome-keyring daemon. Run under
// scripts/with-session-bus; without a reachable, unlocked keyring these tests fail.

#include "ServerClient/platform/Keychain.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <random>

#include "ServerClient/Utils/KeychainTokenItem.h"
#include "support/LogCapture.h"
#include "support/Shell.h"
#include "support/Thrown.h"

namespace kel::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using KeychainError = KeychainTokenItem::KeychainError;

// Tests may run in parallel against one daemon: each works on services of its own.
std::string uniqueService() {
  std::random_device random;
  return "io.kelclient.test." + std::to_string(random()) + std::to_string(random());
}

fs::path testBinary() {
  return fs::read_symlink("/proc/self/exe");
}

/// Runs the disabled KeychainChild test `name` in a new process of this binary, behind the shell
/// words of `prefix` (environment changes, a wrapper). A hung child and its daemons are killed.
void runChildTest(const std::string& name, const std::string& prefix) {
  const auto [exitCode, output] = test::runShell(
      prefix + " timeout -s KILL 90 " + test::shellQuoted(testBinary()) +
      " --gtest_also_run_disabled_tests --gtest_filter=KeychainChild.DISABLED_" + name + " 2>&1");
  EXPECT_EQ(0, exitCode) << output;
  // A filter that matched nothing would pass as well.
  EXPECT_NE(output.find("[  PASSED  ] 1 test."), std::string::npos) << output;
}

class KeychainTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (const auto& group : {std::optional<std::string>(), std::optional<std::string>("TEAM.a"),
                              std::optional<std::string>("TEAM.b")}) {
      keychain_.deleteItems({service_, group});
    }
  }

  SecretServiceKeychain keychain_;
  const std::string service_ = uniqueService();
};

TEST_F(KeychainTest, ItemKeepsArbitraryBytesAndRefusesADuplicate) {
  const std::string bytes("\0\xff token \n\x80", 11);
  ASSERT_EQ(keychain_.add({service_, std::nullopt, bytes}), errSecSuccess);
  EXPECT_EQ(keychain_.add({service_, std::nullopt, "other"}), errSecDuplicateItem);
  EXPECT_EQ(keychain_.copyMatching({service_, std::nullopt}).data, bytes);
  // The service name is matched whole, never as a prefix.
  EXPECT_EQ(keychain_.copyMatching({service_.substr(0, service_.size() - 1), std::nullopt}).status,
            errSecItemNotFound);

  EXPECT_EQ(keychain_.deleteItems({service_, std::nullopt}), errSecSuccess);
  EXPECT_EQ(keychain_.copyMatching({service_, std::nullopt}).status, errSecItemNotFound);
  EXPECT_EQ(keychain_.deleteItems({service_, std::nullopt}), errSecItemNotFound);
  EXPECT_EQ(keychain_.add({"", std::nullopt, "x"}), errSecParam);
  EXPECT_EQ(keychain_.copyMatching({service_, ""}).status, errSecParam);
}

TEST_F(KeychainTest, EachQueryMatchesOneAccessGroupOnly) {
  ASSERT_EQ(keychain_.add({service_, "TEAM.a", "in a"}), errSecSuccess);
  ASSERT_EQ(keychain_.add({service_, "TEAM.b", "in b"}), errSecSuccess);
  EXPECT_EQ(keychain_.add({service_, "TEAM.a", "again"}), errSecDuplicateItem);
  EXPECT_EQ(keychain_.copyMatching({service_, "TEAM.b"}).data, "in b");
  EXPECT_EQ(keychain_.copyMatching({service_, "TEAM"}).status, errSecItemNotFound);
  // No group named: the default group, never the others.
  EXPECT_EQ(keychain_.copyMatching({service_, std::nullopt}).status, errSecItemNotFound);
  EXPECT_EQ(keychain_.deleteItems({service_, std::nullopt}), errSecItemNotFound);

  EXPECT_EQ(keychain_.deleteItems({service_, "TEAM.a"}), errSecSuccess);
  EXPECT_EQ(keychain_.copyMatching({service_, "TEAM.a"}).status, errSecItemNotFound);
  EXPECT_EQ(keychain_.copyMatching({service_, "TEAM.b"}).data, "in b");
}

TEST(KeychainUnavailableTest, NoSessionBusGivesNotAvailableQuickly) {
  runChildTest("NoSessionBus",
               "env -u DISPLAY DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent/kel-test-bus");
}

TEST(KeychainUnavailableTest, LockedKeyringGivesInteractionNotAllowed) {
  // Locking the shared daemon's keyring would break the other tests, and unlocking needs a
  // prompt: the child gets a private session bus and keyring of its own.
  const fs::path script = testBinary().parent_path().parent_path().parent_path().parent_path() /
                          "scripts" / "with-session-bus";
  ASSERT_TRUE(fs::exists(script)) << script;
  runChildTest("LockedKeyring", "env -u KEL_IN_SESSION_BUS " + test::shellQuoted(script));
}

// Bodies of the child processes above; disabled so that they run only when asked for.

TEST(KeychainChild, DISABLED_NoSessionBus) {
  kel::testing::LogCapture log;
  SecretServiceKeychain keychain;
  const std::string service = uniqueService();
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(keychain.add({service, std::nullopt, "x"}), errSecNotAvailable);
  EXPECT_EQ(keychain.copyMatching({service, std::nullopt}).status, errSecNotAvailable);
  EXPECT_EQ(keychain.deleteItems({service, std::nullopt}), errSecNotAvailable);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 10s);
  EXPECT_TRUE(log.contains("connecting to the session bus failed (errSecNotAvailable)"));
  // Not "no token": the caller can tell a missing keychain from a missing session.
  EXPECT_EQ(test::thrown<KeychainError>([&] { KeychainTokenItem(service).readToken(); }),
            KeychainError::unhandledError(errSecNotAvailable));
}

TEST(KeychainChild, DISABLED_LockedKeyring) {
  SecretServiceKeychain keychain(3s);
  const std::string service = uniqueService();
  ASSERT_EQ(keychain.add({service, std::nullopt, "stored"}), errSecSuccess);
  ASSERT_EQ(std::system("dbus-send --session --print-reply --dest=org.freedesktop.secrets "
                        "/org/freedesktop/secrets org.freedesktop.Secret.Service.Lock "
                        "array:objpath:/org/freedesktop/secrets/aliases/default >/dev/null"),
            0);

  kel::testing::LogCapture log;
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(keychain.copyMatching({service, std::nullopt}).status, errSecInteractionNotAllowed);
  EXPECT_EQ(keychain.deleteItems({service, std::nullopt}), errSecInteractionNotAllowed);
  EXPECT_EQ(keychain.add({uniqueService(), std::nullopt, "x"}), errSecInteractionNotAllowed);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 3s);
  EXPECT_TRUE(log.contains("locked"));
}

}  // namespace
}  // namespace kel::platform
