// The Secret Service keychain against a real gnome-keyring daemon. Run under
// scripts/with-session-bus; without a reachable, unlocked keyring these tests fail.

#include "ServerClient/platform/Keychain.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "ServerClient/Utils/KeychainTokenItem.h"
#include "support/LogCapture.h"

extern char** environ;

namespace kel::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using KeychainError = KeychainTokenItem::KeychainError;

constexpr const char* kServiceVariable = "KEL_KEYCHAIN_TEST_SERVICE";

// Tests may run in parallel against one daemon: each works on services of its own.
std::string uniqueService() {
  std::random_device random;
  return "io.kelclient.test." + std::to_string(random()) + std::to_string(random());
}

struct ChildResult {
  int exitCode = -1;
  std::string output;
};

/// Runs `argv` with the environment changed by `env` (a value of nothing removes the variable),
/// its output captured. A child still running after `limit` is killed and fails the test.
ChildResult runChild(const std::vector<std::string>& argv,
                     const std::map<std::string, std::optional<std::string>>& env,
                     std::chrono::seconds limit = 90s) {
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (!env.contains(text.substr(0, text.find('=')))) environment.push_back(text);
  }
  for (const auto& [name, value] : env) {
    if (value) environment.push_back(name + "=" + *value);
  }
  const auto pointers = [](std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
  };
  std::vector<std::string> args = argv;
  std::vector<char*> argPointers = pointers(args);
  std::vector<char*> envPointers = pointers(environment);

  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe failed";
    return {};
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDERR_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  // Its own process group, so that a hung child takes its daemons with it.
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  pid_t pid = 0;
  const int spawned = ::posix_spawnp(&pid, argPointers[0], &actions, &attributes,
                                     argPointers.data(), envPointers.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  ::close(out[1]);
  if (spawned != 0) {
    ::close(out[0]);
    ADD_FAILURE() << "cannot start " << argv[0];
    return {};
  }

  ChildResult result;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  bool killed = false;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd readable{out[0], POLLIN, 0};
    if (left <= 0ms || ::poll(&readable, 1, static_cast<int>(left.count())) == 0) {
      ::kill(-pid, SIGKILL);
      killed = true;
      break;
    }
    char buffer[4096];
    const ssize_t n = ::read(out[0], buffer, sizeof buffer);
    if (n <= 0) break;
    result.output.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(out[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  EXPECT_FALSE(killed) << argv[0] << " did not finish in time:\n" << result.output;
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

fs::path testBinary() {
  return fs::read_symlink("/proc/self/exe");
}

/// Runs one of the KeychainChild tests in a new process of this binary.
ChildResult runChildTest(const std::string& name,
                         std::map<std::string, std::optional<std::string>> env,
                         std::vector<std::string> prefix = {}) {
  prefix.push_back(testBinary().string());
  prefix.push_back("--gtest_filter=KeychainChild.DISABLED_" + name);
  prefix.push_back("--gtest_also_run_disabled_tests");
  ChildResult result = runChild(prefix, env);
  // A filter that matched nothing would pass as well.
  EXPECT_NE(result.output.find("[  PASSED  ] 1 test."), std::string::npos) << result.output;
  return result;
}

class KeychainTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (const std::string& each : {service_, service_ + ".serverURL"}) {
      for (const auto& group :
           {std::optional<std::string>(), std::optional<std::string>("TEAM.a"),
            std::optional<std::string>("TEAM.b"), keychainAccessGroup("TEAM")}) {
        keychain_.deleteItems({each, group});
      }
    }
  }

  SecretServiceKeychain keychain_;
  const std::string service_ = uniqueService();
};

TEST_F(KeychainTest, ItemKeepsArbitraryBytesAndRefusesADuplicate) {
  const std::string bytes("\0\xff token \n\x80", 11);
  ASSERT_EQ(keychain_.add({service_, std::nullopt, bytes}), errSecSuccess);
  EXPECT_EQ(keychain_.add({service_, std::nullopt, "other"}), errSecDuplicateItem);

  const KeychainMatch match = keychain_.copyMatching({service_, std::nullopt});
  EXPECT_EQ(match.status, errSecSuccess);
  EXPECT_EQ(match.data, bytes);
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
  ASSERT_EQ(keychain_.add({service_, std::nullopt, "default"}), errSecSuccess);
  EXPECT_EQ(keychain_.copyMatching({service_, std::nullopt}).data, "default");

  EXPECT_EQ(keychain_.deleteItems({service_, "TEAM.a"}), errSecSuccess);
  EXPECT_EQ(keychain_.copyMatching({service_, "TEAM.a"}).status, errSecItemNotFound);
  EXPECT_EQ(keychain_.deleteItems({service_, std::nullopt}), errSecSuccess);
  EXPECT_EQ(keychain_.copyMatching({service_, "TEAM.b"}).data, "in b");
}

TEST_F(KeychainTest, TokenPairSavedTwiceReadsTheLatestAndSurvivesTheProcess) {
  const KeychainTokenItem item(service_, keychainAccessGroup("TEAM"));
  item.saveToken("first", "https://a.example/");
  item.saveToken(
      "s\xc3\xa9"
      "cond",
      "https://b.example/");
  EXPECT_EQ(item.readToken(), (KeychainTokenItem::StoredToken{"s\xc3\xa9"
                                                              "cond",
                                                              "https://b.example/"}));

  const ChildResult child = runChildTest("ReadsSavedToken", {{kServiceVariable, service_}});
  EXPECT_EQ(child.exitCode, 0) << child.output;

  item.deleteItem();
  EXPECT_EQ(keychain_.copyMatching({service_ + ".serverURL", keychainAccessGroup("TEAM")}).status,
            errSecItemNotFound);
  item.deleteItem();
}

TEST(KeychainUnavailableTest, NoSessionBusGivesNotAvailableQuickly) {
  const ChildResult child = runChildTest(
      "NoSessionBus", {{"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/kel-test-bus"},
                       {"DISPLAY", std::nullopt}});
  EXPECT_EQ(child.exitCode, 0) << child.output;
}

TEST(KeychainUnavailableTest, LockedKeyringGivesInteractionNotAllowed) {
  // Locking the shared daemon's keyring would break the other tests, and unlocking needs a
  // prompt: the child gets a private session bus and keyring of its own.
  const fs::path script = testBinary().parent_path().parent_path().parent_path().parent_path() /
                          "scripts" / "with-session-bus";
  ASSERT_TRUE(fs::exists(script)) << script;
  const ChildResult child =
      runChildTest("LockedKeyring", {{"KEL_IN_SESSION_BUS", std::nullopt}}, {script.string()});
  EXPECT_EQ(child.exitCode, 0) << child.output;
}

// Bodies of the child processes above; disabled so that they run only when asked for.

TEST(KeychainChild, DISABLED_ReadsSavedToken) {
  const char* service = std::getenv(kServiceVariable);
  ASSERT_NE(service, nullptr);
  EXPECT_EQ(KeychainTokenItem(service, keychainAccessGroup("TEAM")).readToken(),
            (KeychainTokenItem::StoredToken{"s\xc3\xa9"
                                            "cond",
                                            "https://b.example/"}));
  EXPECT_THROW(KeychainTokenItem(service, keychainAccessGroup("OTHER")).readToken(), KeychainError);
}

void expectEveryCallAnswers(Keychain& keychain, OSStatus expected) {
  const std::string service = uniqueService();
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(keychain.add({service, std::nullopt, "x"}), expected);
  EXPECT_EQ(keychain.copyMatching({service, std::nullopt}).status, expected);
  EXPECT_EQ(keychain.deleteItems({service, std::nullopt}), expected);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 10s);
}

TEST(KeychainChild, DISABLED_NoSessionBus) {
  kel::testing::LogCapture log;
  SecretServiceKeychain keychain;
  expectEveryCallAnswers(keychain, errSecNotAvailable);
  EXPECT_TRUE(log.contains("connecting to the session bus failed (errSecNotAvailable)"));

  try {
    KeychainTokenItem(uniqueService()).readToken();
    ADD_FAILURE() << "read without a keychain succeeded";
  } catch (const KeychainError& error) {
    EXPECT_EQ(error, KeychainError::unhandledError(errSecNotAvailable));
  }
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
