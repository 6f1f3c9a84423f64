// The kel command line: which commands need which options, and the forms a person types.

#include "cli/CommandLine.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <map>
#include <set>
#include <string_view>

namespace kel::cli {
namespace {

CommandLineResult parse(std::vector<std::string_view> arguments) {
  return parseCommandLine(arguments);
}

const std::vector<std::string_view> kServer = {"--kel-url", "https://kel.example/api",
                                               "--socket-url", "wss://kel.example/ws"};

std::vector<std::string_view> withServer(std::vector<std::string_view> arguments) {
  arguments.insert(arguments.end(), kServer.begin(), kServer.end());
  return arguments;
}

TEST(KelCommandLineTest, ReadsCommandsAndOptionsInAnyOrderAndBothValueForms) {
  auto result = parse({"--json", "push", "--device-id=d1", "register", "--push-token", "p=1",
                       "--kel-url=http://127.0.0.1:8080", "--socket-url", "ws://127.0.0.1:8080/w",
                       "--team-id", "T", "--timeout=5", "--production"});
  ASSERT_TRUE(result.commandLine) << result.error;
  const auto& line = *result.commandLine;
  EXPECT_EQ("push register", line.name);
  EXPECT_EQ("d1", line.arguments.value("--device-id"));
  EXPECT_EQ("p=1", line.arguments.value("--push-token")) << "only the first '=' separates";
  EXPECT_TRUE(line.arguments.has("--production"));
  EXPECT_EQ("http://127.0.0.1:8080", line.kelURL);
  EXPECT_EQ("T", line.teamId);
  EXPECT_EQ(std::chrono::seconds(5), line.timeout);
  EXPECT_TRUE(line.json);

  // The demo needs no server; --help wins over any command, complete or not.
  EXPECT_EQ("demo", parse({"demo"}).commandLine->name);
  EXPECT_EQ("help", parse({}).commandLine->name);
  EXPECT_EQ("help", parse({"logout", "--help"}).commandLine->name);
  EXPECT_EQ("help", parse({"groups", "--help"}).commandLine->name);
}

// Each domain command runs end to end in KelCliTest; here, the forms that test does not type.
TEST(KelCommandLineTest, DomainCommandsTakeTheirOperandsAndOptions) {
  struct Case {
    std::vector<std::string_view> arguments;
    std::string name;
    const char* flags;  // JSON: each option's values
  };
  const std::vector<Case> cases = {
      {{"contacts", "add", "--contact-id", "c1", "--name", "Ann", "--phone", "work:+1:primary",
        "--phone", "sip:sip:ann@x", "--email", "home", "--favorite"},
       "contacts add",
       R"({"--contact-id": ["c1"], "--name": ["Ann"], "--phone": ["work:+1:primary",
           "sip:sip:ann@x"], "--email": ["home"], "--favorite": [""]})"},
      {{"presence", "update", "--online", "--activity", "busy", "--note", "--not an option"},
       "presence update",
       R"({"--online": [""], "--activity": ["busy"], "--note": ["--not an option"]})"},
      {{"watch", "--domain", "Groups", "--domain", "presence", "--subscribe", "bob", "--count", "2",
        "--for", "60"},
       "watch",
       R"({"--domain": ["Groups", "presence"], "--subscribe": ["bob"], "--count": ["2"],
           "--for": ["60"]})"},
  };
  for (const auto& c : cases) {
    const auto result = parse(withServer(c.arguments));
    ASSERT_TRUE(result.commandLine) << c.name << ": " << result.error;
    EXPECT_EQ(c.name, result.commandLine->name);
    EXPECT_TRUE(result.commandLine->arguments.operands.empty()) << c.name;
    EXPECT_EQ(nlohmann::json::parse(c.flags), nlohmann::json(result.commandLine->arguments.flags))
        << c.name;
  }
}

TEST(KelCommandLineTest, RefusesIncompleteOrMistypedCommandsSayingWhy) {
  struct Case {
    std::vector<std::string_view> arguments;
    std::string error;
  };
  const std::vector<Case> cases = {
      {{"whoami"}, "--kel-url is required for whoami"},
      {{"whoami", "--kel-url", "https://k"}, "--socket-url is required for whoami"},
      {{"whoami", "--kel-url", "kel.example", "--socket-url", "wss://k"},
       "--kel-url: not an absolute URL: kel.example"},
      {{"whoami", "--kel-url", "wss://k", "--socket-url", "wss://k"},
       "--kel-url: expected a http or https URL: wss://k"},
      {{"whoami", "--kel-url", "https://k", "--socket-url", "https://k"},
       "--socket-url: expected a ws or wss URL: https://k"},
      {withServer({"login"}), "--token is required for login"},
      {withServer({"logout"}), "--device-id is required for logout"},
      {withServer({"push", "register", "--device-id", "d"}),
       "--push-token is required for push register"},
      {withServer({"push"}), "unknown command \"push\""},
      {withServer({"whoami", "extra"}), "unknown command \"whoami extra\""},
      {withServer({"whoami", "--token", "t"}), "--token is not an option of whoami"},
      {{"demo", "--timeout", "0"}, "--timeout: expected a whole number from 1 to 3600, got \"0\""},
      {{"demo", "--timeout", "5s"},
       "--timeout: expected a whole number from 1 to 3600, got \"5s\""},
      {{"demo", "--token"}, "--token needs a value"},
      {{"demo", "--json=yes"}, "--json takes no value"},
      {{"demo", "--frobnicate"}, "unknown option --frobnicate"},
      // Operands and repeated options.
      {withServer({"groups", "add", "g1"}), "groups add takes ID USER (got 1 operand)"},
      {withServer({"groups", "get"}), "groups get takes ID (got 0 operands)"},
      {withServer({"groups", "leave-all", "g1"}), "unknown command \"groups leave-all g1\""},
      {withServer({"presence", "subscribe"}),
       "presence subscribe takes ADDRESS... (got 0 operands)"},
      {withServer({"groups", "create", "a", "--group-id", "1", "--group-id", "2"}),
       "--group-id given twice"},
      // Values each command checks.
      {withServer({"contacts", "add", "--contact-id", "c1"}),
       "--name is required for contacts add"},
      {withServer({"contacts", "add", "--contact-id", "c1", "--name", ""}),
       "--name is required for contacts add"},
      {withServer({"contacts", "add", "--contact-id", "c1", "--name", "A", "--phone", "work"}),
       "contacts add: --phone: expected TYPE:VALUE[:primary], got \"work\""},
      {withServer({"contacts", "update", "--contact-id", "c1", "--name", "A", "--phone", ":1"}),
       "contacts update: --phone: expected TYPE:VALUE[:primary], got \":1\""},
      {withServer({"contacts", "add", "--contact-id", "c1", "--name", "A", "--email", ":primary"}),
       "contacts add: --email: expected TYPE[:VALUE][:primary], got \":primary\""},
      {withServer({"contacts", "delete", "--contact-id", "a/b"}),
       "contacts delete: --contact-id: an id cannot hold \"/\" (it goes into the request's path)"},
      {withServer({"addressbooks", "--type", "friends"}),
       "addressbooks: --type: unknown address book type \"friends\" (known: contacts, static, "
       "domain, phonebooks, groups, azureOrgContacts, azureOrgUsers, azurePersonalContacts)"},
      {withServer({"addressbooks", "contact"}), "--user is required for addressbooks contact"},
      {withServer({"presence", "update", "--online"}),
       "presence update: --online is sent only together with --activity"},
      {withServer({"presence", "update", "--avatar", "x", "--clear-avatar"}),
       "presence update: --avatar and --clear-avatar exclude each other"},
      {withServer({"presence", "update", "--address", "kel-user:me"}),
       "presence update: nothing to change"},
      {withServer({"groups", "list", "--owned", "--participating"}),
       "groups list: --participating and --owned exclude each other (neither: both)"},
      {withServer({"groups", "list", "--delay", "1"}), "--delay is not an option of groups list"},
      {withServer({"groups", "ringing", "g1", "sequential", "--delay", "10"}),
       "groups ringing: --steps is required for this strategy"},
      {withServer({"groups", "ringing", "g1", "sequential", "--delay", "-1", "--steps", "2"}),
       "groups ringing: --delay: expected a whole number from 0 to 1000000, got \"-1\""},
      {withServer(
           {"groups", "ringing", "g1", "simultaneous-reduced", "--steps", "2", "--delay", "1"}),
       "groups ringing: --delay belongs to the sequential strategy only"},
      {withServer({"groups", "ringing", "g1", "simultaneous", "--steps", "2"}),
       "groups ringing: --steps does not belong to the simultaneous strategy"},
      {withServer({"groups", "ringing", "g1", "round-robin"}),
       "groups ringing: unknown strategy \"round-robin\" (known: simultaneous, sequential, "
       "simultaneous-reduced)"},
      {withServer({"watch", "--domain", "chat"}),
       "watch: --domain: unknown domain \"chat\" (known: addressBooks, conferences, presence, "
       "group, participantInGroup, alerts, missedCalls, meetings, xmppIndividualChatList, "
       "unkwown, groups)"},
      {withServer({"watch", "--count", "0"}),
       "watch: --count: expected a whole number from 1 to 1000000000, got \"0\""},
      {withServer({"meetings", "create", "M", "--phone", "+1:text"}),
       "meetings create: --phone: expected NUMBER or NUMBER:sms, got \"+1:text\""},
      {withServer({"meetings", "create", "M", "--valid-since", "now+1h", "--valid-until", "now"}),
       "meetings create: --valid-until must come after --valid-since"},
      {withServer({"meetings", "update", "m1", "M", "--send-invites", "--no-send-invites"}),
       "meetings update: --send-invites and --no-send-invites exclude each other"},
      {withServer({"calls", "history", "--limit", "0"}),
       "calls history: --limit: expected a whole number from 1 to 1000, got \"0\""},
      {withServer({"alerts", "list", "--expired-since", "-5"}),
       "alerts list: --expired-since: expected a whole number from 0 to 315360000, got \"-5\""},
      {withServer({"chats", "add", "bob@x/res"}),
       "chats add: expected a JID local@domain, got \"bob@x/res\""},
  };
  for (const auto& c : cases) {
    const auto result = parse(c.arguments);
    EXPECT_FALSE(result.commandLine) << c.error;
    EXPECT_EQ(c.error, result.error);
  }
}

TEST(KelCommandLineTest, ReadsInstantsInEachFormAndRefusesTheRest) {
  using namespace std::chrono;
  const sys_days day = 2024y / 2 / 29;
  const system_clock::time_point now = day + 12h;
  const std::vector<std::pair<std::string_view, std::optional<system_clock::time_point>>> cases = {
      {"now", now},
      {"now+90m", now + 90min},
      {"now-2d", now - days(2)},
      {"now+30s", now + 30s},
      {"2024-02-29T08:05Z", day + 8h + 5min},
      {"2024-02-29T08:05:09Z", day + 8h + 5min + 9s},
      {"1700000000123", system_clock::time_point(1700000000123ms)},
      {"now+", std::nullopt},
      {"now+5w", std::nullopt},
      {"now5m", std::nullopt},
      {"2023-02-29T08:05Z", std::nullopt},
      {"2024-02-29T08:05", std::nullopt},
      {"2024-02-29 08:05Z", std::nullopt},
      {"2024-02-29T08:05:09+01:00", std::nullopt},
      {"-1", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [text, expected] : cases) {
    if (expected) {
      EXPECT_EQ(*expected, parseInstant("--at", text, now)) << text;
    } else {
      EXPECT_THROW(parseInstant("--at", text, now), UsageError) << text;
    }
  }
}

// The parser decides from an option's name alone whether the next argument is its value, and
// finds a command by its words: both need the tables to agree with each other.
TEST(KelCommandLineTest, TablesAgreeOnOptionsAndNameEachCommandOnce) {
  std::map<std::string_view, bool> takesValue = {{"--kel-url", true}, {"--json", false}};
  std::set<std::string> names;
  std::string help = usage("kel");
  for (const auto* group : commandGroups()) {
    for (const auto& command : group->commands) {
      EXPECT_TRUE(names.insert(command.name()).second) << command.name();
      EXPECT_NE(std::string::npos, help.find("  " + command.name())) << command.name();
      EXPECT_LE(command.minOperands, command.maxOperands) << command.name();
      for (const auto& flag : command.flags) {
        const auto [known, added] = takesValue.emplace(flag.name, !flag.value.empty());
        EXPECT_EQ(known->second, !flag.value.empty()) << flag.name << " in " << command.name();
        EXPECT_NE(std::string::npos, help.find(flag.name)) << flag.name;
      }
    }
  }
}

}  // namespace
}  // namespace kel::cli
