#include "cli/CommandLine.h"

#include <charconv>
#include <vector>

#include <boost/url/parse.hpp>

#include "ServerClient/Common/SafeText.h"

namespace kel::cli {

namespace {

struct Failure {
  std::string text;
};

std::optional<Command> commandFrom(const std::vector<std::string_view>& words) {
  if (words.empty()) return Command::help;
  const auto first = words.front();
  if (words.size() == 1) {
    if (first == "help") return Command::help;
    if (first == "demo") return Command::demo;
    if (first == "login") return Command::login;
    if (first == "whoami") return Command::whoami;
    if (first == "renew") return Command::renew;
    if (first == "logout") return Command::logout;
  }
  if (words.size() == 2 && first == "push") {
    if (words[1] == "register") return Command::pushRegister;
    if (words[1] == "unregister") return Command::pushUnregister;
  }
  return std::nullopt;
}

std::string joined(const std::vector<std::string_view>& words) {
  std::string text;
  for (const auto word : words) {
    if (!text.empty()) text += ' ';
    text += word;
  }
  return text;
}

void requireURL(const std::string& value, std::string_view flag,
                std::initializer_list<std::string_view> schemes) {
  if (value.empty()) throw Failure{std::string(flag) + " is required for this command"};
  const auto parsed = boost::urls::parse_absolute_uri(value);
  if (!parsed) throw Failure{std::string(flag) + ": not an absolute URL: " + redactSecrets(value)};
  for (const auto scheme : schemes) {
    if (parsed->scheme() == scheme) return;
  }
  std::string names;
  for (const auto scheme : schemes) names += (names.empty() ? "" : " or ") + std::string(scheme);
  throw Failure{std::string(flag) + ": expected a " + names + " URL: " + redactSecrets(value)};
}

void requireValue(const std::string& value, std::string_view flag) {
  if (value.empty()) throw Failure{std::string(flag) + " is required for this command"};
}

CommandLine parse(std::span<const std::string_view> arguments) {
  CommandLine line;
  std::vector<std::string_view> words;
  bool help = false;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const auto argument = arguments[i];
    if (!argument.starts_with("--")) {
      words.push_back(argument);
      continue;
    }
    std::string_view flag = argument;
    std::optional<std::string_view> inlineValue;
    if (const auto equals = argument.find('='); equals != std::string_view::npos) {
      flag = argument.substr(0, equals);
      inlineValue = argument.substr(equals + 1);
    }
    auto value = [&]() -> std::string {
      if (inlineValue) return std::string(*inlineValue);
      if (i + 1 >= arguments.size()) throw Failure{std::string(flag) + " needs a value"};
      return std::string(arguments[++i]);
    };
    auto noValue = [&] {
      if (inlineValue) throw Failure{std::string(flag) + " takes no value"};
    };
    if (flag == "--help") {
      noValue();
      help = true;
    } else if (flag == "--json") {
      noValue();
      line.json = true;
    } else if (flag == "--verbose") {
      noValue();
      line.verbose = true;
    } else if (flag == "--real-keychain") {
      noValue();
      line.realKeychain = true;
    } else if (flag == "--production") {
      noValue();
      line.production = true;
    } else if (flag == "--kel-url") {
      line.kelURL = value();
    } else if (flag == "--socket-url") {
      line.socketURL = value();
    } else if (flag == "--app-version") {
      line.appVersion = value();
    } else if (flag == "--team-id") {
      line.teamId = value();
    } else if (flag == "--token") {
      line.token = value();
    } else if (flag == "--device-id") {
      line.deviceId = value();
    } else if (flag == "--push-token") {
      line.pushToken = value();
    } else if (flag == "--timeout") {
      const auto text = value();
      int seconds = 0;
      const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
      if (error != std::errc() || end != text.data() + text.size() || seconds < 1 ||
          seconds > 3600) {
        throw Failure{"--timeout: expected whole seconds from 1 to 3600, got \"" + text + "\""};
      }
      line.timeout = std::chrono::seconds(seconds);
    } else {
      throw Failure{"unknown option " + std::string(flag)};
    }
  }

  const auto command = commandFrom(words);
  if (!command) throw Failure{"unknown command \"" + joined(words) + "\""};
  line.command = help ? Command::help : *command;

  switch (line.command) {
    case Command::help:
    case Command::demo:
      return line;
    default:
      break;
  }
  requireURL(line.kelURL, "--kel-url", {"http", "https"});
  requireURL(line.socketURL, "--socket-url", {"ws", "wss"});
  requireValue(line.appVersion, "--app-version");
  requireValue(line.teamId, "--team-id");
  switch (line.command) {
    case Command::login:
      requireValue(line.token, "--token");
      break;
    case Command::pushRegister:
      requireValue(line.deviceId, "--device-id");
      requireValue(line.pushToken, "--push-token");
      break;
    case Command::pushUnregister:
    case Command::logout:
      requireValue(line.deviceId, "--device-id");
      break;
    default:
      break;
  }
  return line;
}

}  // namespace

CommandLineResult parseCommandLine(std::span<const std::string_view> arguments) {
  try {
    return {parse(arguments), {}};
  } catch (const Failure& failure) {
    return {std::nullopt, failure.text};
  }
}

std::string usage(std::string_view program) {
  const std::string name(program);
  return "Usage: " + name +
         " [options] COMMAND\n"
         "\n"
         "Commands:\n"
         "  demo                  run a whole session against an emulator started in-process\n"
         "  login --token T       sign in with the sign-in token T and store the session\n"
         "  whoami                restore the stored session and print its user\n"
         "  renew                 restore the stored session and renew it once\n"
         "  push register         register --push-token for --device-id\n"
         "  push unregister       remove the push registration of --device-id\n"
         "  logout                remove --device-id's push token, end the session, forget it\n"
         "  help                  this text\n"
         "\n"
         "Options:\n"
         "  --kel-url URL         the server's HTTP base URL (http or https); every command\n"
         "                        but demo\n"
         "  --socket-url URL      the server's WebSocket URL (ws or wss); every command but demo\n"
         "  --app-version V       the version sent at sign-in (default 1.0.0)\n"
         "  --team-id ID          the team whose keychain group holds the session (default\n"
         "                        KELCLI)\n"
         "  --token T             the sign-in token (login)\n"
         "  --device-id ID        the device (push, logout)\n"
         "  --push-token T        the push token (push register)\n"
         "  --production          register for the production push environment\n"
         "  --timeout SECONDS     bound on each wait (default 30)\n"
         "  --json                print one JSON object per command on stdout\n"
         "  --verbose             print the library's log lines on stderr\n"
         "  --real-keychain       demo: keep the session in the Secret Service instead of in\n"
         "                        memory (it forgets any session that login stored)\n"
         "  --help                this text\n"
         "\n"
         "Sessions are kept in the Secret Service keychain, the restore flag in\n"
         "$XDG_CONFIG_HOME/ServerClient/defaults-<team id>.json, both per team. Exit status:\n"
         "0 on success, 1 when the command failed, 2 for a bad command line.\n";
}

}  // namespace kel::cli
