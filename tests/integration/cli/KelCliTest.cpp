// The kel program as a user runs it: separate processes that share the session only through the
// keychain (the test command's private Secret Service) and a private defaults file.

#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/Emulator.h"
#include "support/Shell.h"
#include "support/SignInAnswer.h"

#ifndef KEL_CLI_PATH
#error "KEL_CLI_PATH must name the built kel program"
#endif

namespace kel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct KelRun {
  int exitCode = -1;
  std::string out;
  std::string err;

  nlohmann::json json() const {
    auto parsed = nlohmann::json::parse(out, nullptr, false);
    return parsed.is_discarded() ? nlohmann::json() : parsed;
  }
};

/// Runs kel with `arguments` and XDG_CONFIG_HOME set to `configHome`, capturing stdout and
/// stderr. A kel still running after 60 s is killed and fails the test.
KelRun runKel(const std::vector<std::string>& arguments, const fs::path& configHome) {
  const std::string errors = configHome.string() + ".err";
  std::string command = "XDG_CONFIG_HOME=" + test::shellQuoted(configHome) +
                        " timeout -s KILL 60 " + test::shellQuoted(KEL_CLI_PATH);
  for (const auto& argument : arguments) command += " " + test::shellQuoted(argument);
  KelRun run;
  std::tie(run.exitCode, run.out) = test::runShell(command + " 2>" + test::shellQuoted(errors));
  std::ostringstream err;
  err << std::ifstream(errors, std::ios::binary).rdbuf();
  run.err = err.str();
  fs::remove(errors);
  EXPECT_NE(128 + SIGKILL, run.exitCode) << "kel still running after 60 s:\n" << run.out << run.err;
  return run;
}

class KelCliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    configHome_ = fs::temp_directory_path() /
                  ("kel-cli-test-" + std::to_string(getpid()) + "-" +
                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(configHome_);
    fs::create_directories(configHome_);
  }
  void TearDown() override { fs::remove_all(configHome_); }

  /// A command against the server at `urls`, in a keychain group of this test's own (tests run
  /// in parallel against one keychain daemon). Options in `arguments` win over these defaults.
  KelRun kel(const emulator::Urls& urls, std::vector<std::string> arguments, bool json = true) {
    const std::string team = std::string("KELCLITEST.") +
                             ::testing::UnitTest::GetInstance()->current_test_info()->name();
    arguments.insert(arguments.begin(), {"--kel-url", urls.kelURL, "--socket-url", urls.socketURL,
                                         "--team-id", team, "--timeout", "10"});
    if (json) arguments.push_back("--json");
    return runKel(arguments, configHome_);
  }

  fs::path configHome_;
};

TEST_F(KelCliTest, DemoWalksAWholeSessionAndSucceeds) {
  const auto run = runKel({"demo"}, configHome_);
  EXPECT_EQ(0, run.exitCode) << run.out << run.err;
  EXPECT_NE(std::string::npos, run.out.find("every step succeeded")) << run.out;
  // The demo keeps its session in memory: nothing reaches the defaults file.
  EXPECT_FALSE(fs::exists(configHome_ / "ServerClient"));
}

TEST_F(KelCliTest, LoginIsRestoredByLaterProcessesUntilLogout) {
  emulator::Emulator emulator;
  emulator.addAccount(emulator::defaultAccount("dora", "dora-sign-in"));
  emulator.start();

  auto run = kel(emulator.urls(), {"login", "--token", "dora-sign-in"});
  ASSERT_EQ(0, run.exitCode) << run.out << run.err;
  EXPECT_EQ("dora", run.json()["user"]["id"]) << run.out;
  const std::string sessionId = run.json()["session"]["id"];

  // A new process knows the user only through the stored session token: the same session.
  run = kel(emulator.urls(), {"whoami"});
  ASSERT_EQ(0, run.exitCode) << run.out << run.err;
  EXPECT_EQ("dora", run.json()["user"]["id"]) << run.out;
  EXPECT_EQ(sessionId, run.json()["session"]["id"]);
  run = kel(emulator.urls(), {"logout", "--device-id", "d1"});
  ASSERT_EQ(0, run.exitCode) << run.out << run.err;
  EXPECT_TRUE(emulator.waitUntil([&] { return emulator.sessionStore().sessions().empty(); }, 5s));

  run = kel(emulator.urls(), {"whoami"});
  EXPECT_EQ(1, run.exitCode) << run.out << run.err;
  EXPECT_EQ(false, run.json()["ok"]) << run.out;
  EXPECT_EQ("generic/notAllowed", run.json()["error"]["kind"]) << run.out;

  // A stored session that the server no longer knows: refused at once, not retried.
  run = kel(emulator.urls(), {"login", "--token", "dora-sign-in"});
  ASSERT_EQ(0, run.exitCode) << run.out << run.err;
  ASSERT_TRUE(emulator.endSession(emulator.sessionStore().sessions().at(0).token));
  run = kel(emulator.urls(), {"whoami", "--timeout", "20"});
  EXPECT_EQ(1, run.exitCode) << run.out << run.err;
  EXPECT_EQ("auth/Wrong credentials", run.json()["error"]["kind"]) << run.out;
}

TEST_F(KelCliTest, RefusedSignInRefusedSocketAndGoneServerFailAtOnceAndClearly) {
  auto emulator = std::make_unique<emulator::Emulator>();
  emulator->addAccount(emulator::defaultAccount("dora", "dora-sign-in"));
  const auto urls = emulator->start();

  auto run = kel(urls, {"login", "--token", "wrong"});
  EXPECT_EQ(1, run.exitCode) << run.out << run.err;
  EXPECT_EQ("auth/Wrong credentials", run.json()["error"]["kind"]) << run.out;
  EXPECT_NE(std::string::npos, run.err.find("kel login: auth/Wrong credentials")) << run.err;
  run = kel(urls, {"whoami"});
  EXPECT_EQ(1, run.exitCode) << "a refused sign-in stored nothing";

  // A well-formed answer whose session token the socket does not know: AUTH is closed with 4401,
  // which is named at once, not as a time-out.
  emulator->signIn().setAnswer({.rawBody = kel::testing::signInAnswer()});
  auto started = std::chrono::steady_clock::now();
  run = kel(urls, {"login", "--token", "dora-sign-in"});
  EXPECT_LT(std::chrono::steady_clock::now() - started, 8s) << "the --timeout is 10 s";
  EXPECT_EQ("connection/refused", run.json()["error"]["kind"]) << run.out;
  EXPECT_EQ("sign-in: the socket was closed with 4401 (invalid session token)",
            run.json()["error"]["message"])
      << run.out;

  // A server that is gone: the refused connection is the answer, not the time bound.
  emulator.reset();
  started = std::chrono::steady_clock::now();
  run = kel(urls, {"login", "--token", "dora-sign-in"});
  EXPECT_EQ(1, run.exitCode) << run.out << run.err;
  EXPECT_EQ(false, run.json()["ok"]) << run.out;
  EXPECT_NE("timeout", run.json()["error"]["kind"]) << run.out;
  EXPECT_LT(std::chrono::steady_clock::now() - started, 8s);
}

/// What no output of kel may hold: the marker secrets and raw terminal controls.
void expectClean(const KelRun& run, const std::string& what) {
  for (const auto* output : {&run.out, &run.err}) {
    EXPECT_EQ(std::string::npos, output->find("MARK")) << what << ":\n" << *output;
    EXPECT_EQ(std::string::npos, output->find_first_of("\x1b\x07\r")) << what << ":\n" << *output;
    EXPECT_EQ(std::string::npos, output->find('\0')) << what;
  }
}

TEST_F(KelCliTest, NoSecretAndNoTerminalControlReachesAnyOutput) {
  emulator::Emulator emulator;
  // An answer that fails to decode (retyped and missing fields, raw controls, a trailing NUL),
  // carrying secrets that a decoding error would otherwise quote whole.
  const std::string body = R"({"access_token":"MARK-T","token":7,"password":"MARK-P",)"
                           "\"note\":\"\x1b]0;x\x07\r\x1b[2J\","
                           R"("session":{"secret":{"a":"MARK-S"}}})";
  emulator.addAccount(emulator::defaultAccount("dora", "MARK-SIGN-IN"));
  emulator.signIn().setAnswer({.rawBody = body + std::string(1, '\0')});
  auto urls = emulator.start();
  // Credentials written into the socket URL are not echoed either.
  urls.socketURL.insert(urls.socketURL.find("//") + 2, "ann:MARK-U@");
  // The log lines of --verbose go to stderr whatever the output format.
  for (const bool json : {true, false}) {
    std::vector<std::string> arguments{"login", "--token", "MARK-SIGN-IN"};
    if (!json) arguments.push_back("--verbose");
    const auto run = kel(urls, arguments, json);
    EXPECT_EQ(1, run.exitCode) << run.out << run.err;
    EXPECT_NE(std::string::npos, run.err.find("generic/decoding")) << run.err;
    EXPECT_NE(std::string::npos, run.err.find("<redacted>")) << run.err;
    expectClean(run, json ? "json" : "plain");
  }
  // A refused command line (its rules are the unit tests') exits with 2 and names the culprit.
  const auto bad =
      runKel({"login", "--kel-url", "http://ann:MARK@h", "--socket-url", "ftp://h"}, configHome_);
  EXPECT_EQ(2, bad.exitCode);
  EXPECT_NE(std::string::npos, bad.err.find("kel: ")) << bad.err;
  EXPECT_NE(std::string::npos, bad.err.find("ftp://h")) << bad.err;
  expectClean(bad, "command line");
}

TEST_F(KelCliTest, RenewTellsWhetherTheServerAcceptedTheRenewal) {
  emulator::Emulator emulator;
  emulator.addAccount(emulator::defaultAccount("dora", "dora-sign-in"));
  const auto urls = emulator.start();
  ASSERT_EQ(0, kel(urls, {"login", "--token", "dora-sign-in"}).exitCode);

  struct Case {
    std::optional<emulator::Fault> fault;
    std::string kind;     // empty: accepted
    std::string message;  // a part of the message
  };
  const Case cases[] = {
      {std::nullopt, "", ""},
      {emulator::Fault::status(401), "connection/unauthorized",
       " refused: ConnectionError.unauthorized"},
      {emulator::Fault::closeSocket(4403, "denied\x1b[2J"), "connection/refused",
       "the socket was closed with 4403 (denied\\x1b[2J)"},
      // Last: the server ends the session, which forgets the stored one.
      {emulator::Fault::closeSocket(1000), "session/ended",
       ": the server ended the session (the socket was closed with 1000 (normalClosure))"},
  };
  for (const auto& [fault, kind, message] : cases) {
    emulator.clearFaults();
    if (fault)
      emulator.faultAllRequests(
          *fault, {.socket = std::nullopt, .method = "PUT", .pathPrefix = "/sessions"});
    const auto run = kel(urls, {"renew"}, false);
    EXPECT_EQ(kind.empty() ? 0 : 1, run.exitCode) << kind << run.out << run.err;
    if (kind.empty()) {
      EXPECT_NE(std::string::npos, run.out.find(" accepted")) << run.out;
      continue;
    }
    EXPECT_NE(std::string::npos, run.err.find("kel renew: " + kind + ": renewal of session "))
        << run.err;
    EXPECT_NE(std::string::npos, run.err.find(message)) << run.err;
    expectClean(run, kind);
  }
}

}  // namespace
}  // namespace kel
