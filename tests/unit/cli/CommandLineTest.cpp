// The kel command line: which commands need which options, and the forms a person types.

#include "cli/CommandLine.h"

#include <gtest/gtest.h>

#include <string_view>
#include <vector>

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
  EXPECT_EQ(Command::pushRegister, line.command);
  EXPECT_EQ("d1", line.deviceId);
  EXPECT_EQ("p=1", line.pushToken) << "only the first '=' separates";
  EXPECT_EQ("http://127.0.0.1:8080", line.kelURL);
  EXPECT_EQ("T", line.teamId);
  EXPECT_EQ(std::chrono::seconds(5), line.timeout);
  EXPECT_TRUE(line.json);
  EXPECT_TRUE(line.production);

  // The demo needs no server; --help wins over any command, complete or not.
  EXPECT_EQ(Command::demo, parse({"demo"}).commandLine->command);
  EXPECT_EQ(Command::help, parse({}).commandLine->command);
  EXPECT_EQ(Command::help, parse({"logout", "--help"}).commandLine->command);
}

TEST(KelCommandLineTest, RefusesIncompleteOrMistypedCommandsNamingTheCulprit) {
  struct Case {
    std::vector<std::string_view> arguments;
    std::string_view mention;
  };
  const std::vector<Case> cases = {
      {{"whoami"}, "--kel-url is required"},
      {{"whoami", "--kel-url", "https://k"}, "--socket-url is required"},
      {withServer({"login"}), "--token is required"},
      {withServer({"logout"}), "--device-id is required"},
      {withServer({"push", "register", "--device-id", "d"}), "--push-token is required"},
      {withServer({"push"}), "unknown command \"push\""},
      {withServer({"whoami", "extra"}), "unknown command \"whoami extra\""},
      {{"whoami", "--kel-url", "kel.example", "--socket-url", "wss://k"}, "not an absolute URL"},
      {{"whoami", "--kel-url", "wss://k", "--socket-url", "wss://k"}, "expected a http or https"},
      {{"whoami", "--kel-url", "https://k", "--socket-url", "https://k"}, "expected a ws or wss"},
      {{"demo", "--timeout", "0"}, "--timeout"},
      {{"demo", "--timeout", "5s"}, "--timeout"},
      {{"demo", "--token"}, "--token needs a value"},
      {{"demo", "--json=yes"}, "--json takes no value"},
      {{"demo", "--frobnicate"}, "unknown option --frobnicate"},
  };
  for (const auto& c : cases) {
    const auto result = parse(c.arguments);
    EXPECT_FALSE(result.commandLine) << c.arguments.front();
    EXPECT_NE(std::string::npos, result.error.find(c.mention)) << result.error;
  }
}

}  // namespace
}  // namespace kel::cli
