// Start-up data: the command line, what a valid fixture sets up, and that an invalid one is
// refused with the offending member named and nothing changed; and the sessions of the accounts.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <ranges>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

#include "DomainHarness.h"
#include "emulator/CommandLine.h"

namespace kel::emulator::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::ThrowsMessage;
using namespace std::chrono_literals;

const json kFixture = json::parse(R"({
  "users": [
    {"id": "dave", "token": "dave-token", "signInToken": "dave-sign-in",
     "user": {"alias": "Dave D", "email": "dave@example.org"},
     "capabilities": {"domain": ["chat"], "user": []}},
    {"id": "erin"}
  ],
  "contacts": {"dave": [{"id": "c1", "name": "Erin", "favorite": true, "associatedUserId": "erin"}]},
  "presences": {"erin": {"online": true, "activity": "available", "note": "hi"}},
  "directories": [{"id": "staff", "name": "Staff", "type": "static",
                   "contacts": [{"id": "s1", "name": "Sam", "favorite": false}]}],
  "groups": [{"groupId": "sales", "name": "Sales", "owner": "dave", "participants": ["erin", "alice"],
              "ringingStrategy": {"type": "simultaneous-reduced", "properties": {"steps": 2}}}],
  "meetings": [{"id": "m1", "owner": "dave", "name": "Plan", "language": "en",
                "participants": [{"email": "erin@emulator.kel"}], "validSince": 1700000000000,
                "validUntil": 1700003600000, "record": {"type": "all"}}],
  "calls": [{"from": "erin", "to": "dave", "outcome": "missed", "endedAt": 1700000060000,
             "durationSeconds": 60}],
  "alertTemplates": [{"templateId": "fire", "title": "Fire", "payload": "Leave"}],
  "chats": {"dave": ["erin@emulator.kel"]}
})");

TEST(EmulatorFixture, SetsUpAccountsSessionsAndEveryDomain) {
  DomainHarness harness;
  // The program's test sees the sessions and sign-in tokens of the users; KelCliTest serves
  // fixtures whose users' capabilities, directories and alert templates its commands read.
  loadFixture(kFixture, harness.store, harness.signIn, harness.domains);
  const auto dave = harness.signIn.account("dave");
  ASSERT_TRUE(dave);
  EXPECT_TRUE(includes(dave->user, {{"id", "dave"}, {"alias", "Dave D"}, {"username", "dave"}}));

  auto& domains = harness.domains;
  EXPECT_TRUE(includes(domains.addressBooks.booksFor("dave", {"contacts"}),
                       {{{"contacts", {{{"id", "c1"}, {"associatedUserId", "erin"}}}}}}));
  EXPECT_TRUE(includes(*domains.presences.presence("erin"),
                       {{"online", true}, {"note", "hi"}, {"displayName", "erin"}}));
  EXPECT_TRUE(includes(*domains.groups.group("sales"),
                       {{"chatId", "chat-sales"},
                        {"participants", {"erin", "alice"}},
                        {"owner", {{"id", "dave"}, {"alias", "Dave D"}}},
                        {"ringingStrategy", kFixture["groups"][0]["ringingStrategy"]}}));
  EXPECT_TRUE(includes(*domains.meetings.meeting("m1"), {{"url", "https://meet.emulator.kel/m1"},
                                                         {"participants", {{{"userId", "erin"}}}},
                                                         {"isPasswordProtected", false},
                                                         {"validUntil", 1700003600000}}));
  const auto entries = domains.callHistory.entries();
  ASSERT_EQ(1u, entries.size());
  EXPECT_TRUE(includes(entries[0], {{"createdAt", 1700000000000}, {"finishedAt", 1700000060000}}));
  EXPECT_EQ(1u, domains.callHistory.missedCalls("dave").size());
  EXPECT_EQ(std::vector<std::string>{"erin@emulator.kel"}, domains.chatLists.chats("dave"));
  EXPECT_TRUE(harness.pushed.empty()) << "history is loaded without events";
}

TEST(EmulatorFixture, InvalidFixturesNameTheMemberAndChangeNothing) {
  const std::vector<std::pair<const char*, const char*>> cases{
      {R"([])", "a fixture is a JSON object"},
      {R"({"people": []})", R"("people" is not known)"},
      {R"({"users": [{"name": "x"}]})", R"("users[0].name" is not known)"},
      {R"({"users": [{"id": "x"}, {"id": "x"}]})", R"("users[1].id" is not unique)"},
      {R"({"users": [{"id": "x", "token": "t"}, {"id": "y", "token": "t"}]})",
       R"("users[1].token")"},
      {R"({"contacts": {"zed": []}})", R"("contacts.zed": no user "zed")"},
      {R"({"contacts": {"alice": [{"id": "c1", "name": "A"}]}})",
       R"("contacts.alice[0].favorite" is missing)"},
      {R"({"presences": {"alice": {"online": "yes"}}})",
       R"("presences.alice.online" must be true or false)"},
      {R"({"directories": [{"id": "d", "name": "D", "type": "contacts"}]})",
       R"("directories[0].type" must be a directory's type)"},
      {R"({"directories": [{"id": "d", "name": "D", "type": "static", "contacts": [{"id": "c"}]}]})",
       R"("directories[0].contacts[0].name" is missing)"},
      {R"({"groups": [{"groupId": "g", "name": "G", "owner": "zed"}]})",
       R"("groups[0].owner": no user "zed")"},
      {R"({"groups": [{"groupId": "g", "name": "G", "owner": "alice", "participants": ["bob", "bob"]}]})",
       "names bob twice"},
      {R"({"groups": [{"groupId": "g", "name": "G", "owner": "alice",
                       "ringingStrategy": {"type": "sequential", "properties": {"steps": 1}}}]})",
       R"("groups[0].ringingStrategy.properties.delay" is missing)"},
      {R"({"meetings": [{"id": "m", "owner": "alice", "name": "M", "language": "en",
                         "participants": [], "validSince": 1, "record": {"type": "all"},
                         "sendInvites": true}]})",
       R"("meetings[0].sendInvites" is not known)"},
      {R"({"meetings": [{"id": "m", "owner": "zed", "name": "M", "language": "en",
                         "participants": [], "validSince": 1, "record": {"type": "all"}}]})",
       R"("meetings[0].owner": no user "zed")"},
      {R"({"calls": [{"from": "alice", "to": "bob", "outcome": "lost"}]})",
       R"("calls[0].outcome" must be)"},
      {R"({"calls": [{"from": "alice", "to": "zed", "outcome": "missed"}]})",
       R"("calls[0].to": no user "zed")"},
      {R"({"alertTemplates": [{"templateId": "t", "title": "T"}]})",
       R"("alertTemplates[0].payload" is missing)"},
      {R"({"chats": {"alice": ["bob"]}})", R"("chats.alice": "bob" is no JID)"},
      // Valid users followed by an invalid part: the users are not added either.
      {R"({"users": [{"id": "new", "token": "nt"}],
           "groups": [{"groupId": "g", "name": "G", "owner": "new", "participants": ["zed"]}]})",
       R"("groups[0].participants": no user "zed")"},
  };
  for (const auto& [text, message] : cases) {
    DomainHarness harness;
    const auto before = harness.state();
    EXPECT_THAT(
        [&] { loadFixture(json::parse(text), harness.store, harness.signIn, harness.domains); },
        ThrowsMessage<std::invalid_argument>(HasSubstr(message)))
        << text;
    EXPECT_EQ(before, harness.state()) << text;
    EXPECT_EQ(3u, harness.store.users().size()) << text;
  }
}

// The program reads its fixture from a file; what is wrong with the file is named.
TEST(EmulatorFixture, FilesThatAreNoFixturesAreRefusedWithTheReason) {
  const auto path = ::testing::TempDir() + "kel-emulator-fixture.json";
  std::ofstream(path) << R"({"users": [{"id": "x"},]})";
  EXPECT_THAT([&] { readFixtureFile(path); },
              ThrowsMessage<std::invalid_argument>(
                  AllOf(HasSubstr(path + " is not JSON: "), HasSubstr("line 1"))));
  EXPECT_THROW(readFixtureFile(path + ".missing"), std::invalid_argument);
}

/// The arguments are the words of `line`.
CommandLineResult parse(std::string_view line) {
  std::vector<std::string_view> arguments;
  for (const auto word : std::views::split(line, ' ')) {
    if (!word.empty()) arguments.emplace_back(word.begin(), word.end());
  }
  return parseCommandLine(arguments);
}

// The program's tests run it with --listen, the TLS files, users, a fixture and --auth-timeout.
TEST(EmulatorCommandLine, FlagsFillTheOptions) {
  auto result = parse(
      "--listen [::1]:8080 --ping-period=0.25 --user alice --token t1 --user=bob --socket-path /ws "
      "--threads 2 --session-lifetime 60 --log-frames --record-frames 50 --alert-lifetime 1.5");
  ASSERT_TRUE(result.commandLine) << result.error;
  const auto& options = result.commandLine->options;
  const auto& users = result.commandLine->users;
  EXPECT_EQ("::1", options.host);
  EXPECT_EQ(8080, options.port);
  EXPECT_EQ(250ms, options.pingPeriod);
  EXPECT_EQ("/ws", options.socketPath);
  EXPECT_EQ(2u, options.threads);
  EXPECT_EQ(60s, options.sessionLifetime);
  EXPECT_TRUE(options.logFrames);
  EXPECT_EQ(50u, options.frameLogLimit);
  EXPECT_EQ(1500ms, options.alertLifetime);
  ASSERT_EQ(2u, users.size());
  EXPECT_EQ("t1", users[0].token);
  EXPECT_FALSE(users[1].token);

  EXPECT_EQ(30s, parse("").commandLine->options.pingPeriod) << "pings are on for a person";
  const auto unrecorded = parse("--no-record").commandLine->options;
  EXPECT_FALSE(unrecorded.recordFrames);
  EXPECT_EQ(0u, unrecorded.signInAttemptLimit);
}

TEST(EmulatorCommandLine, MistakesAreRefusedWithAReason) {
  for (const auto* line :
       {"--listen 127.0.0.1", "--listen ::1:80", "--listen 127.0.0.1:65536", "--listen",
        "--token t", "--user a --token t --token u", "--tls-cert c.pem", "--ping-period -1",
        "--ping-period soon", "--threads 0", "--auth-timeout -1", "--record-frames many",
        "--no-record=yes", "--socket-path ws", "--help=yes", "--verbose", "--fixture",
        "--alert-lifetime 0"}) {
    auto result = parse(line);
    EXPECT_FALSE(result.commandLine) << line;
    EXPECT_FALSE(result.error.empty()) << line;
  }
}

TEST(EmulatorSessionStore, SessionsLiveFromCreationThroughExpiryAndRenewalToTheirEnd) {
  SessionStore store(1h);
  EXPECT_THROW(store.createSession("ghost"), std::invalid_argument);
  store.addUser({"alice", {}});
  const auto token = store.createSession("alice").token;
  EXPECT_TRUE(store.expireSession(token));
  EXPECT_FALSE(store.validSession(token));
  EXPECT_TRUE(store.session(token)) << "an expired session is still known";
  EXPECT_TRUE(store.renewSession(token, 10s));
  EXPECT_TRUE(store.isValid(token));
  EXPECT_EQ(token, store.endSession(token)->token);
  EXPECT_FALSE(store.session(token));
  EXPECT_FALSE(store.renewSession(token));
}

TEST(EmulatorSessionStore, ChosenTokensMustBeFreshAndCreatedOnesAreDistinctAcrossThreads) {
  SessionStore store;
  store.addUser({"bob", {}});
  store.createSession("bob", std::nullopt, "chosen");
  EXPECT_THROW(store.createSession("bob", std::nullopt, "chosen"), std::invalid_argument);
  EXPECT_THROW(store.createSession("bob", std::nullopt, ""), std::invalid_argument);
  EXPECT_FALSE(store.isValid("Chosen"));

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) store.createSession("bob");
    });
  }
  for (auto& thread : threads) thread.join();
  std::set<std::string> tokens;
  std::set<std::string> ids;
  for (const auto& session : store.sessionsOf("bob")) {
    tokens.insert(session.token);
    ids.insert(session.sessionId);
  }
  EXPECT_EQ(201u, tokens.size());
  EXPECT_EQ(201u, ids.size());
}

}  // namespace
}  // namespace kel::emulator::test
