#include <gtest/gtest.h>

#include <ranges>

#include "emulator/CommandLine.h"

namespace kel::emulator {
namespace {

using namespace std::chrono_literals;

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

}  // namespace
}  // namespace kel::emulator
