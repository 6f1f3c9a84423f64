// The kel program as a user runs it: separate processes that share the session only through the
// keychain (the test command's private Secret Service) and a private defaults file.

#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <tuple>

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

/// A kel started in the background; finishKel() waits for it.
struct StartedKel {
  FILE* pipe = nullptr;
  std::string errors;
};

/// Starts kel with `arguments` and XDG_CONFIG_HOME set to `configHome`, capturing stdout and
/// stderr. A kel still running after 60 s is killed and fails the test.
StartedKel startKel(const std::vector<std::string>& arguments, const fs::path& configHome) {
  static int started = 0;
  StartedKel kel{nullptr, configHome.string() + "." + std::to_string(++started) + ".err"};
  std::string command = "XDG_CONFIG_HOME=" + test::shellQuoted(configHome) +
                        " timeout -s KILL 60 " + test::shellQuoted(KEL_CLI_PATH);
  for (const auto& argument : arguments) command += " " + test::shellQuoted(argument);
  command += " 2>" + test::shellQuoted(kel.errors);
  kel.pipe = ::popen(command.c_str(), "r");
  if (kel.pipe == nullptr) ADD_FAILURE() << "cannot start kel";
  return kel;
}

KelRun finishKel(const StartedKel& kel) {
  KelRun run;
  if (kel.pipe == nullptr) return run;
  std::tie(run.exitCode, run.out) = test::finishShell(kel.pipe);
  std::ostringstream err;
  err << std::ifstream(kel.errors, std::ios::binary).rdbuf();
  run.err = err.str();
  fs::remove(kel.errors);
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
  KelRun kel(const emulator::Urls& urls, std::vector<std::string> arguments, bool asJson = true) {
    return finishKel(startKel(withDefaults(urls, std::move(arguments), asJson), configHome_));
  }

  std::vector<std::string> withDefaults(const emulator::Urls& urls,
                                        std::vector<std::string> arguments, bool asJson = true) {
    arguments.insert(arguments.begin(), {"--kel-url", urls.kelURL, "--socket-url", urls.socketURL,
                                         "--team-id", team(), "--timeout", "10"});
    if (asJson) arguments.push_back("--json");
    return arguments;
  }

  static std::string team() {
    return std::string("KELCLITEST.") +
           ::testing::UnitTest::GetInstance()->current_test_info()->name();
  }

  /// `arguments` as `user` gives them: each user's session in a keychain group of its own.
  static std::vector<std::string> as(const std::string& user, std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--team-id", team() + "." + user});
    return arguments;
  }

  /// A command of `user` against the server of startSignedIn() that must succeed; its result.
  nlohmann::json ok(const std::string& user, std::vector<std::string> arguments) {
    const auto run = kel(urls_, as(user, arguments));
    EXPECT_EQ(0, run.exitCode) << user << " " << arguments.front() << ":\n" << run.out << run.err;
    EXPECT_EQ(true, run.json()["ok"]) << run.out;
    return run.json();
  }

  /// Serves `fixture` with users alice and bob, who have `capability` and are signed in.
  emulator::Urls startSignedIn(emulator::Emulator& emulator, const std::string& capability,
                               nlohmann::json fixture) {
    for (const std::string user : {"alice", "bob"}) {
      fixture["users"].push_back(
          {{"id", user},
           {"signInToken", user + "-sign-in"},
           {"capabilities", {{"domain", {capability}}, {"user", nlohmann::json::array()}}}});
    }
    emulator.loadFixture(fixture);
    urls_ = emulator.start();
    ok("alice", {"login", "--token", "alice-sign-in"});
    ok("bob", {"login", "--token", "bob-sign-in"});
    return urls_;
  }

  fs::path configHome_;
  emulator::Urls urls_;
};

/// The lines of a watch's output, each a JSON object.
nlohmann::json watchLines(const KelRun& run) {
  auto lines = nlohmann::json::array();
  std::istringstream out(run.out);
  for (std::string line; std::getline(out, line);) lines.push_back(nlohmann::json::parse(line));
  return lines;
}

TEST_F(KelCliTest, DemoWalksAWholeSessionAndSucceeds) {
  const auto run = finishKel(startKel({"demo"}, configHome_));
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
  for (const bool asJson : {true, false}) {
    std::vector<std::string> arguments{"login", "--token", "MARK-SIGN-IN"};
    if (!asJson) arguments.push_back("--verbose");
    const auto run = kel(urls, arguments, asJson);
    EXPECT_EQ(1, run.exitCode) << run.out << run.err;
    EXPECT_NE(std::string::npos, run.err.find("generic/decoding")) << run.err;
    EXPECT_NE(std::string::npos, run.err.find("<redacted>")) << run.err;
    expectClean(run, asJson ? "json" : "plain");
  }
  // A refused command line (its rules are the unit tests') exits with 2 and names the culprit.
  const auto bad = finishKel(startKel(
      {"login", "--kel-url", "http://ann:MARK@h", "--socket-url", "ftp://h"}, configHome_));
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

TEST_F(KelCliTest, MetricsFollowTheCommandWhetherItSucceededOrNot) {
  emulator::Emulator emulator;
  emulator.addAccount(emulator::defaultAccount("dora", "dora-sign-in"));
  const auto urls = emulator.start();
  ASSERT_EQ(0, kel(urls, {"login", "--token", "dora-sign-in"}).exitCode);
  // The restore's request is answered, the renewal refused.
  emulator.faultAllRequests(emulator::Fault::status(404),
                            {.socket = std::nullopt, .method = "PUT", .pathPrefix = "/sessions"});
  auto run = kel(urls, {"--metrics", "renew"});
  EXPECT_EQ(1, run.exitCode) << run.out << run.err;
  const auto metrics = run.json()["metrics"];
  const nlohmann::json expected = {
      {"/requests/sent", 2},    {"/requests/answered", 1}, {"/requests/failed/notFound", 1},
      {"/requests/pending", 0}, {"/roundTrip/count", 2},   {"/authentication/count", 1}};
  for (const auto& [pointer, value] : expected.items()) {
    EXPECT_EQ(value, metrics[nlohmann::json::json_pointer(pointer)]) << pointer << "\n" << run.out;
  }
  EXPECT_GT(metrics["bytes"]["received"], 0) << run.out;

  run = kel(urls, {"renew", "--metrics"}, false);
  EXPECT_NE(
      std::string::npos,
      run.out.find("metrics: requests 2 sent, 1 answered, 1 failed (notFound 1), 0 timed out"))
      << run.out;
  expectClean(run, "metrics");
}

TEST_F(KelCliTest, DomainCommandsChangeTheServerAndWatchPrintsAnotherProcesssEvents) {
  emulator::Emulator emulator;
  const auto urls = startSignedIn(emulator, "presence", nlohmann::json::parse(R"({"directories": [
    {"id": "staff", "name": "Staff", "type": "static",
     "contacts": [{"id": "s1", "name": "Desk", "favorite": false}]}]})"));

  // Contacts and address books.
  auto result = ok("alice", {"contacts", "add", "--contact-id", "c1", "--name", "Bob", "--phone",
                             "work:+1555:primary", "--email", "home", "--associated-user", "bob"});
  EXPECT_EQ(nlohmann::json::parse(
                R"({"id": "c1", "name": "Bob", "associatedUserId": "bob", "favorite": false,
                    "phones": [{"type": "work", "value": "+1555", "primary": true}],
                    "emails": [{"type": "home", "primary": false}]})"),
            result["contact"]);
  result = ok("alice", {"addressbooks"});
  ASSERT_EQ(2u, result["addressBooks"].size()) << result;
  EXPECT_EQ("c1", result["addressBooks"][0]["contacts"][0]["id"]) << result;
  EXPECT_EQ("staff", result["addressBooks"][1]["id"]) << result;
  ok("alice", {"contacts", "update", "--contact-id", "c1", "--name", "Bobby", "--associated-user",
               "bob", "--favorite"});
  result = ok("alice", {"addressbooks", "contact", "--user", "bob", "--type", "contacts"});
  EXPECT_EQ("Bobby", result["contact"]["name"]) << result;
  ok("alice", {"contacts", "delete", "--contact-id", "c1"});
  EXPECT_TRUE(ok("alice", {"addressbooks", "contact", "--user", "bob"})["contact"].is_null());

  // Presence.
  result = ok("alice", {"presence", "update", "--online", "--activity", "busy", "--note", "lunch"});
  EXPECT_EQ("kel-user:alice", result["presence"]["address"]) << result;
  result = ok("bob", {"presence", "get", "alice"});
  EXPECT_EQ("lunch", result["presence"]["note"]) << result;
  result = ok("bob", {"presence", "subscribe", "alice", "kel-user:bob"});
  EXPECT_EQ(2u, result["presences"].size()) << result;
  EXPECT_EQ(false, result["fromCache"]) << result;

  // Groups.
  EXPECT_EQ("g1",
            ok("alice", {"groups", "create", "Support", "--group-id", "g1"})["group"]["groupId"]);
  ok("alice", {"groups", "add", "g1", "bob"});
  ok("alice", {"groups", "ringing", "g1", "sequential", "--delay", "10", "--steps", "2"});
  ok("alice", {"groups", "reorder", "g1", "bob"});
  EXPECT_EQ(true, ok("alice", {"groups", "is-member", "g1", "bob"})["member"]);
  result = ok("bob", {"groups", "list", "--participating"});
  ASSERT_EQ(1u, result["groups"].size()) << result;
  EXPECT_EQ("alice", result["groups"][0]["owner"]["id"]) << result;
  result = ok("alice", {"groups", "get", "g1"});
  EXPECT_EQ("sequential", result["group"]["ringingStrategy"]["ringingStrategy"]["type"]) << result;
  ok("bob", {"groups", "leave", "g1"});
  EXPECT_EQ(false, ok("alice", {"groups", "is-member", "g1", "bob"})["member"]);
  // Refusals are the server's errors, exit status 1.
  auto run = kel(urls, as("bob", {"groups", "delete", "g1"}));
  EXPECT_EQ(1, run.exitCode) << run.out << run.err;
  EXPECT_EQ("connection/forbidden", run.json()["error"]["kind"]) << run.out;

  // bob watches; alice's commands cause his events.
  const auto watch =
      startKel(withDefaults(urls, as("bob", {"watch", "--domain", "groups", "--domain", "presence",
                                             "--subscribe", "alice", "--count", "2"})),
               configHome_);
  ASSERT_TRUE(emulator.waitUntil(
      [&] {
        for (const auto id : emulator.presences().subscribers("alice")) {
          if (const auto socket = emulator.socket(id); socket && socket->open) return true;
        }
        return false;
      },
      20s));
  ok("alice", {"presence", "update", "--activity", "away"});
  ok("alice", {"groups", "add", "g1", "bob"});
  run = finishKel(watch);
  EXPECT_EQ(0, run.exitCode) << run.out << run.err;
  const auto lines = watchLines(run);
  ASSERT_EQ(3u, lines.size()) << run.out;
  const nlohmann::json expected = {
      {"/0/domain", "presence"}, {"/0/method", "PUT"},   {"/0/record/activity", "away"},
      {"/1/domain", "group"},    {"/1/method", "POST"},  {"/1/record/groupId", "g1"},
      {"/2/events", 2},          {"/2/endedBy", "count"}};
  for (const auto& [pointer, value] : expected.items()) {
    EXPECT_EQ(value, lines[nlohmann::json::json_pointer(pointer)]) << pointer << "\n" << run.out;
  }
}

TEST_F(KelCliTest, MeetingCallAlertAndChatCommandsChangeTheServerAndWatchDecodesTheirEvents) {
  emulator::Emulator emulator;
  const auto urls =
      startSignedIn(emulator, "call-history",
                    {{"alertTemplates",
                      {{{"templateId", "fire"}, {"title", "Fire"}, {"payload", "Leave now"}}}}});

  // bob watches every event these commands cause him.
  const auto bobSockets = [&] {
    std::set<emulator::SocketId> ids;
    for (const auto& socket : emulator.sockets()) {
      if (socket.userId == "bob" && socket.authenticated && socket.open) ids.insert(socket.id);
    }
    return ids;
  };
  const auto before = bobSockets();
  const auto watch =
      startKel(withDefaults(urls, as("bob", {"watch", "--count", "9"})), configHome_);
  ASSERT_TRUE(emulator.waitUntil(
      [&] {
        const auto now = bobSockets();
        return std::any_of(now.begin(), now.end(), [&](auto id) { return !before.contains(id); });
      },
      20s));

  // Meetings: bob is invited by his e-mail address.
  auto result = ok("alice", {"meetings", "create", "Board", "--email", "bob@emulator.kel",
                             "--phone", "+15550199:sms", "--valid-until", "now+2h", "--record"});
  const auto meeting = result["meeting"]["id"].get<std::string>();
  EXPECT_EQ("all", result["meeting"]["record"]["type"]) << result;
  result = ok("bob", {"meetings", "search", "--name", "boa", "--valid-until", "now+1h"});
  ASSERT_EQ(1u, result["meetings"].size()) << result;
  EXPECT_EQ(meeting, result["meetings"][0]["id"]) << result;
  ok("alice", {"meetings", "update", meeting, "Board 2", "--email", "bob@emulator.kel",
               "--no-send-invites"});
  EXPECT_EQ("Board 2", ok("bob", {"meetings", "get", meeting})["meeting"]["name"]);
  ok("alice", {"meetings", "delete", meeting});

  // A missed call, in bob's history and missed calls until he marks it read.
  emulator.placeCall({"alice", "bob", emulator::CallOutcome::missed, 30s});
  result = ok("bob", {"calls", "history", "--since", "now-1h", "--limit", "5"});
  ASSERT_EQ(1u, result["entries"].size()) << result;
  EXPECT_EQ("DECLINED_BY_TIMEOUT", result["entries"][0]["invites"][0]["state"]) << result;
  result = ok("bob", {"calls", "missed"});
  ASSERT_EQ(1u, result["missedCalls"].size()) << result;
  ok("bob", {"calls", "mark-read", result["missedCalls"][0]["id"]});
  EXPECT_EQ(nlohmann::json::array(), ok("bob", {"calls", "missed"})["missedCalls"]);

  // An alert raised by alice and accepted by bob.
  EXPECT_EQ("fire", ok("alice", {"alerts", "templates"})["alertTemplates"][0]["templateId"]);
  ok("alice", {"alerts", "send", "fire"});
  result = ok("bob", {"alerts", "list"});
  ASSERT_EQ(1u, result["alerts"].size()) << result;
  ok("bob", {"alerts", "accept", result["alerts"][0]["alertId"]});
  result = ok("alice", {"alerts", "list", "--accepted-since", "all"});
  ASSERT_EQ(1u, result["alerts"].size()) << result;
  EXPECT_EQ("bob", result["alerts"][0]["acceptedBy"]) << result;

  // The chat list.
  ok("bob", {"chats", "add", "alice@emulator.kel"});
  EXPECT_EQ(nlohmann::json::array({"alice@emulator.kel"}), ok("bob", {"chats", "list"})["chats"]);
  ok("bob", {"chats", "remove", "alice@emulator.kel"});

  const auto run = finishKel(watch);
  EXPECT_EQ(0, run.exitCode) << run.out << run.err;
  std::vector<std::string> seen;
  for (const auto& event : watchLines(run)) {
    EXPECT_FALSE(event.contains("error")) << event;
    seen.push_back(event.value("domain", "") + " " + event.value("method", ""));
  }
  const std::vector<std::string> expected = {"meetings POST",
                                             "meetings PUT",
                                             "meetings DELETE",
                                             "conferences POST",
                                             "missedCalls PUT",
                                             "alerts POST",
                                             "alerts PUT",
                                             "xmppIndividualChatList PUT",
                                             "xmppIndividualChatList DELETE",
                                             " "};  // the result line
  EXPECT_EQ(expected, seen) << run.out;
}

}  // namespace
}  // namespace kel
