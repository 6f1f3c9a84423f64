#pragma once

// The kel-emulator program's command line, kept apart from main() so that it can be tested.

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "emulator/Options.h"
#include "emulator/SessionStore.h"

namespace kel::emulator {

struct UserSpec {
  std::string id;
  /// The session token to create for the user; a random one when absent.
  std::optional<std::string> token;
  /// The outside token with which the user signs in (POST /login); none when absent.
  std::optional<std::string> signInToken;
};

struct CommandLine {
  /// Defaults differ from Options' where a person at a terminal expects it: pings every 30 s,
  /// sessions that last a day, log lines on stderr.
  Options options;
  std::optional<std::string> tlsCertificateFile;
  std::optional<std::string> tlsKeyFile;
  std::vector<UserSpec> users;
  /// Start-up data (Fixture.h), loaded after the --user accounts.
  std::optional<std::string> fixtureFile;
  bool help = false;
  bool quiet = false;
};

struct CommandLineResult {
  std::optional<CommandLine> commandLine;
  /// Why the arguments were refused, when commandLine is empty.
  std::string error;
};

/// `arguments` without the program name. Flags take their value as the next argument or after
/// "=" ("--listen=127.0.0.1:0").
CommandLineResult parseCommandLine(std::span<const std::string_view> arguments);

/// The --help text.
std::string usage(std::string_view program);

/// Reads the TLS certificate and key files into commandLine.options.tls; the reason on failure.
std::optional<std::string> loadTlsFiles(CommandLine& commandLine);

/// The program's first line on stdout: one JSON object with "kelURL", "socketURL", "port",
/// "tls" and "users" (each with "id", "token" and "sessionId", and "signInToken" when
/// `signInTokens`, parallel to `sessions`, holds one), no line break inside.
std::string startupLine(const Urls& urls, bool tls, const std::vector<Session>& sessions,
                        const std::vector<std::optional<std::string>>& signInTokens = {});

}  // namespace kel::emulator
