#include <gtest/gtest.h>

#include <vector>

#include "emulator/CommandLine.h"

namespace kel::emulator {
namespace {

using namespace std::chrono_literals;

CommandLineResult parse(std::vector<std::string_view> arguments) {
  return parseCommandLine(arguments);
}

TEST(EmulatorCommandLine, FlagsFillTheOptions) {
  auto result =
      parse({"--listen", "[::1]:8080", "--ping-period=0.25", "--user", "alice", "--token", "t1",
             "--user=bob", "--socket-path", "/ws", "--threads", "2", "--session-lifetime", "60",
             "--log-frames", "--auth-timeout", "2.5", "--record-frames", "50"});
  ASSERT_TRUE(result.commandLine) << result.error;
  const auto& line = *result.commandLine;
  EXPECT_EQ("::1", line.options.host);
  EXPECT_EQ(8080, line.options.port);
  EXPECT_EQ(250ms, line.options.pingPeriod);
  EXPECT_EQ("/ws", line.options.socketPath);
  EXPECT_EQ(2u, line.options.threads);
  EXPECT_EQ(60s, line.options.sessionLifetime);
  EXPECT_TRUE(line.options.logFrames);
  EXPECT_EQ(2500ms, line.options.authTimeout);
  EXPECT_EQ(50u, line.options.frameLogLimit);
  EXPECT_TRUE(line.options.recordFrames);
  EXPECT_EQ("f.json", parse({"--fixture", "f.json"}).commandLine->fixtureFile);
  ASSERT_EQ(2u, line.users.size());
  EXPECT_EQ("t1", line.users[0].token);
  EXPECT_FALSE(line.users[1].token);

  auto defaults = parse({});
  ASSERT_TRUE(defaults.commandLine);
  EXPECT_EQ("127.0.0.1", defaults.commandLine->options.host);
  EXPECT_EQ(0, defaults.commandLine->options.port);
  EXPECT_EQ(30s, defaults.commandLine->options.pingPeriod) << "pings are on for a person";
  EXPECT_EQ(0s, parse({"--ping-period", "0"}).commandLine->options.pingPeriod);
  EXPECT_TRUE(parse({"-h"}).commandLine->help);
  EXPECT_EQ(10s, defaults.commandLine->options.authTimeout);
  const auto unrecorded = parse({"--no-record"}).commandLine->options;
  EXPECT_FALSE(unrecorded.recordFrames);
  EXPECT_EQ(0u, unrecorded.signInAttemptLimit);
}

TEST(EmulatorCommandLine, MistakesAreRefusedWithAReason) {
  for (auto arguments : std::vector<std::vector<std::string_view>>{
           {"--listen", "127.0.0.1"},
           {"--listen", "::1:80"},
           {"--listen", "127.0.0.1:65536"},
           {"--listen"},
           {"--token", "t"},
           {"--user", "a", "--token", "t", "--token", "u"},
           {"--tls-cert", "c.pem"},
           {"--ping-period", "-1"},
           {"--ping-period", "soon"},
           {"--threads", "0"},
           {"--auth-timeout", "-1"},
           {"--record-frames", "many"},
           {"--no-record=yes"},
           {"--socket-path", "ws"},
           {"--help=yes"},
           {"--verbose"},
           {"--fixture"},
       }) {
    auto result = parse(arguments);
    EXPECT_FALSE(result.commandLine) << arguments.front();
    EXPECT_FALSE(result.error.empty());
  }
}

TEST(EmulatorCommandLine, StartupLineIsOneJsonObjectOnOneLine) {
  Session session{"tok", "sid", "alice", {}};
  const auto line =
      startupLine({"http://127.0.0.1:5", "ws://127.0.0.1:5/kel/websocket", 5}, false, {session});
  EXPECT_EQ(std::string::npos, line.find('\n'));
  EXPECT_EQ(
      R"({"kelURL":"http://127.0.0.1:5","socketURL":"ws://127.0.0.1:5/kel/websocket","port":5,)"
      R"("tls":false,"users":[{"id":"alice","token":"tok","sessionId":"sid"}]})",
      line);
}

}  // namespace
}  // namespace kel::emulator
