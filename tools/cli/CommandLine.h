#pragma once

// The kel program's command line, kept apart from main() so that the rules live in one place.

#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kel::cli {

enum class Command { help, demo, login, whoami, renew, pushRegister, pushUnregister, logout };

struct CommandLine {
  Command command = Command::help;

  // Where and as whom: every command but demo needs the two URLs.
  std::string kelURL;
  std::string socketURL;
  std::string appVersion = "1.0.0";
  std::string teamId = "KELCLI";

  std::string token;
  std::string deviceId;
  std::string pushToken;
  bool production = false;

  bool json = false;
  bool verbose = false;
  bool realKeychain = false;
  /// Bound on each wait of a command (sign-in, restore, a request).
  std::chrono::seconds timeout{30};
};

struct CommandLineResult {
  std::optional<CommandLine> commandLine;
  /// Why the arguments were refused, when commandLine is empty.
  std::string error;
};

/// `arguments` without the program name. Options may come before or after the command words and
/// take their value as the next argument or after "=" ("--kel-url=http://...").
CommandLineResult parseCommandLine(std::span<const std::string_view> arguments);

/// The --help text.
std::string usage(std::string_view program);

}  // namespace kel::cli
