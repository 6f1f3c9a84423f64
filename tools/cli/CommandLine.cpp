#include "cli/CommandLine.h"

#include <algorithm>
#include <charconv>

#include <boost/url/parse.hpp>

#include "ServerClient/Common/SafeText.h"

namespace kel::cli {

bool Arguments::has(std::string_view flag) const {
  return flags.find(flag) != flags.end();
}

std::optional<std::string> Arguments::value(std::string_view flag) const {
  const auto found = flags.find(flag);
  if (found == flags.end() || found->second.empty()) return std::nullopt;
  return found->second.back();
}

std::vector<std::string> Arguments::values(std::string_view flag) const {
  const auto found = flags.find(flag);
  return found == flags.end() ? std::vector<std::string>{} : found->second;
}

std::string Command::name() const {
  std::string text;
  for (const auto word : words) text += (text.empty() ? "" : " ") + std::string(word);
  return text;
}

const std::vector<const CommandGroup*>& commandGroups() {
  static const std::vector<const CommandGroup*> groups = {
      &sessionCommands(), &contactsCommands(), &addressBooksCommands(), &presenceCommands(),
      &groupsCommands(),  &meetingsCommands(), &callHistoryCommands(),  &alertsCommands(),
      &chatsCommands(),   &eventCommands()};
  return groups;
}

long long parseNumber(std::string_view what, std::string_view text, long long min, long long max) {
  long long number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < min || number > max) {
    throw UsageError{std::string(what) + ": expected a whole number from " + std::to_string(min) +
                     " to " + std::to_string(max) + ", got \"" + std::string(text) + "\""};
  }
  return number;
}

std::chrono::system_clock::time_point parseInstant(std::string_view what, std::string_view text,
                                                   std::chrono::system_clock::time_point now) {
  using namespace std::chrono;
  const auto refused = [&] {
    return UsageError{std::string(what) + ": expected now, now+N or now-N (N with s, m, h or d), " +
                      "YYYY-MM-DDTHH:MM[:SS]Z or milliseconds since 1970, got \"" +
                      std::string(text) + "\""};
  };
  if (text.starts_with("now")) {
    auto rest = text.substr(3);
    if (rest.empty()) return now;
    if (rest.size() < 3 || (rest[0] != '+' && rest[0] != '-')) throw refused();
    const char unit = rest.back();
    const long long count = [&] {
      try {
        return parseNumber(what, rest.substr(1, rest.size() - 2), 0, 36'500);
      } catch (const UsageError&) {
        throw refused();
      }
    }();
    seconds step{0};
    switch (unit) {
      case 's':
        step = seconds(count);
        break;
      case 'm':
        step = minutes(count);
        break;
      case 'h':
        step = hours(count);
        break;
      case 'd':
        step = days(count);
        break;
      default:
        throw refused();
    }
    return rest[0] == '+' ? now + step : now - step;
  }
  if (!text.empty() &&
      std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return system_clock::time_point(milliseconds(parseNumber(what, text, 0, 253'402'300'799'999)));
  }
  // YYYY-MM-DDTHH:MM[:SS]Z, read field by field so that nothing else passes.
  const auto field = [&](std::size_t at, std::size_t length, int min, int max) {
    if (at + length > text.size()) throw refused();
    int value = 0;
    const auto [end, error] = std::from_chars(text.data() + at, text.data() + at + length, value);
    if (error != std::errc() || end != text.data() + at + length || value < min || value > max) {
      throw refused();
    }
    return value;
  };
  const auto separator = [&](std::size_t at, char expected) {
    if (at >= text.size() || text[at] != expected) throw refused();
  };
  const int year = field(0, 4, 1970, 9999);
  separator(4, '-');
  const int month = field(5, 2, 1, 12);
  separator(7, '-');
  const int day = field(8, 2, 1, 31);
  separator(10, 'T');
  const int hour = field(11, 2, 0, 23);
  separator(13, ':');
  const int minute = field(14, 2, 0, 59);
  int second = 0;
  std::size_t end = 16;
  if (text.size() == 20) {
    separator(16, ':');
    second = field(17, 2, 0, 59);
    end = 19;
  }
  separator(end, 'Z');
  if (text.size() != end + 1) throw refused();
  const year_month_day date{std::chrono::year(year),
                            std::chrono::month(static_cast<unsigned>(month)),
                            std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok()) throw refused();
  return sys_days(date) + hours(hour) + minutes(minute) + seconds(second);
}

namespace {

// The options of every command, and help's text for them.
struct GlobalFlag {
  std::string_view name;
  std::string_view value;
};
constexpr GlobalFlag kGlobalFlags[] = {
    {"--kel-url", "URL"}, {"--socket-url", "URL"},  {"--app-version", "V"},
    {"--team-id", "ID"},  {"--timeout", "SECONDS"}, {"--json", ""},
    {"--verbose", ""},    {"--real-keychain", ""},  {"--metrics", ""},
    {"--help", ""},
};

std::string joined(const std::vector<std::string_view>& words) {
  std::string text;
  for (const auto word : words) text += (text.empty() ? "" : " ") + std::string(word);
  return text;
}

void requireURL(const std::string& value, std::string_view flag, const std::string& command,
                std::initializer_list<std::string_view> schemes) {
  if (value.empty()) throw UsageError{std::string(flag) + " is required for " + command};
  const auto parsed = boost::urls::parse_absolute_uri(value);
  if (!parsed) {
    throw UsageError{std::string(flag) + ": not an absolute URL: " + redactSecrets(value)};
  }
  for (const auto scheme : schemes) {
    if (parsed->scheme() == scheme) return;
  }
  std::string names;
  for (const auto scheme : schemes) names += (names.empty() ? "" : " or ") + std::string(scheme);
  throw UsageError{std::string(flag) + ": expected a " + names + " URL: " + redactSecrets(value)};
}

/// Whether option `name` takes a value; nothing for an option no command has.
std::optional<bool> takesValue(std::string_view name) {
  for (const auto& flag : kGlobalFlags) {
    if (flag.name == name) return !flag.value.empty();
  }
  for (const auto* group : commandGroups()) {
    for (const auto& command : group->commands) {
      for (const auto& flag : command.flags) {
        if (flag.name == name) return !flag.value.empty();
      }
    }
  }
  return std::nullopt;
}

/// The command whose words begin `words` (the longest such), or null.
const Command* findCommand(const std::vector<std::string_view>& words) {
  const Command* found = nullptr;
  for (const auto* group : commandGroups()) {
    for (const auto& command : group->commands) {
      if (command.words.size() > words.size() ||
          (found && found->words.size() >= command.words.size())) {
        continue;
      }
      if (std::equal(command.words.begin(), command.words.end(), words.begin())) found = &command;
    }
  }
  return found;
}

void setGlobal(CommandLine& line, std::string_view flag, const std::string& value) {
  if (flag == "--kel-url") {
    line.kelURL = value;
  } else if (flag == "--socket-url") {
    line.socketURL = value;
  } else if (flag == "--app-version") {
    line.appVersion = value;
  } else if (flag == "--team-id") {
    line.teamId = value;
  } else if (flag == "--timeout") {
    line.timeout = std::chrono::seconds(parseNumber("--timeout", value, 1, 3600));
  } else if (flag == "--json") {
    line.json = true;
  } else if (flag == "--verbose") {
    line.verbose = true;
  } else if (flag == "--real-keychain") {
    line.realKeychain = true;
  } else if (flag == "--metrics") {
    line.metrics = true;
  }
}

CommandLine parse(std::span<const std::string_view> arguments) {
  CommandLine line;
  std::vector<std::string_view> words;
  std::vector<std::pair<std::string, std::string>> commandFlags;
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
    const auto hasValue = takesValue(flag);
    if (!hasValue) throw UsageError{"unknown option " + std::string(flag)};
    std::string value;
    if (*hasValue) {
      if (inlineValue) {
        value = *inlineValue;
      } else if (i + 1 < arguments.size()) {
        value = arguments[++i];
      } else {
        throw UsageError{std::string(flag) + " needs a value"};
      }
    } else if (inlineValue) {
      throw UsageError{std::string(flag) + " takes no value"};
    }
    const bool global = std::any_of(std::begin(kGlobalFlags), std::end(kGlobalFlags),
                                    [&](const GlobalFlag& known) { return known.name == flag; });
    if (flag == "--help") {
      help = true;
    } else if (global) {
      setGlobal(line, flag, value);
    } else {
      commandFlags.emplace_back(flag, std::move(value));
    }
  }

  if (help || words.empty()) {
    line.command = findCommand({"help"});
    line.name = "help";
    return line;
  }
  const auto* command = findCommand(words);
  if (!command) throw UsageError{"unknown command \"" + joined(words) + "\""};
  line.command = command;
  line.name = command->name();
  const std::span<const std::string_view> operands(words.begin() + command->words.size(),
                                                   words.end());
  if (command->maxOperands == 0 && !operands.empty()) {
    throw UsageError{"unknown command \"" + joined(words) + "\""};
  }
  if (operands.size() < command->minOperands || operands.size() > command->maxOperands) {
    throw UsageError{line.name + " takes " + std::string(command->operands) + " (got " +
                     std::to_string(operands.size()) + " operand" +
                     (operands.size() == 1 ? "" : "s") + ")"};
  }
  line.arguments.operands.assign(operands.begin(), operands.end());
  for (auto& [flag, value] : commandFlags) {
    const auto declared = std::find_if(command->flags.begin(), command->flags.end(),
                                       [&](const Flag& each) { return each.name == flag; });
    if (declared == command->flags.end()) {
      throw UsageError{flag + " is not an option of " + line.name};
    }
    auto& values = line.arguments.flags[flag];
    if (!values.empty() && !declared->repeatable) throw UsageError{flag + " given twice"};
    values.push_back(std::move(value));
  }

  if (!command->needsServer) return line;
  requireURL(line.kelURL, "--kel-url", line.name, {"http", "https"});
  requireURL(line.socketURL, "--socket-url", line.name, {"ws", "wss"});
  if (line.appVersion.empty()) throw UsageError{"--app-version must not be empty"};
  if (line.teamId.empty()) throw UsageError{"--team-id must not be empty"};
  for (const auto& flag : command->flags) {
    if (flag.required && line.arguments.value(flag.name).value_or("").empty()) {
      throw UsageError{std::string(flag.name) + " is required for " + line.name};
    }
  }
  if (command->check) {
    try {
      command->check(line.arguments);
    } catch (UsageError& error) {
      error.text = line.name + ": " + error.text;
      throw;
    }
  }
  return line;
}

/// "groups add ID USER [--x X]..." as help shows a command, broken into lines of at most
/// `width` characters between its parts (the continuation lines indented further).
std::string synopsis(const Command& command, std::size_t width) {
  std::vector<std::string> parts = {"  " + command.name()};
  if (!command.operands.empty()) parts.front() += " " + std::string(command.operands);
  for (const auto& flag : command.flags) {
    std::string form(flag.name);
    if (!flag.value.empty()) form += " " + std::string(flag.value);
    if (!flag.required) form = "[" + form + "]";
    if (flag.repeatable) form += "...";
    parts.push_back(std::move(form));
  }
  std::string text = parts.front();
  std::size_t lineStart = 0;
  for (std::size_t i = 1; i < parts.size(); ++i) {
    if (text.size() - lineStart + 1 + parts[i].size() > width) {
      text += "\n";
      lineStart = text.size();
      text += "       ";
    }
    text += " " + parts[i];
  }
  return text;
}

}  // namespace

CommandLineResult parseCommandLine(std::span<const std::string_view> arguments) {
  try {
    return {parse(arguments), {}};
  } catch (const UsageError& failure) {
    return {std::nullopt, failure.text};
  }
}

std::string usage(std::string_view program) {
  constexpr std::size_t kWidth = 96;
  std::string text =
      "Usage: " + std::string(program) + " [options] COMMAND [OPERANDS] [command options]\n";
  for (const auto* group : commandGroups()) {
    text += "\n" + std::string(group->title) + ":\n";
    for (const auto& command : group->commands) {
      text += synopsis(command, kWidth) + "\n";
      std::string_view summary = command.summary;
      while (!summary.empty()) {
        const auto cut = std::min(summary.find('\n'), summary.size());
        text += "      " + std::string(summary.substr(0, cut)) + "\n";
        summary.remove_prefix(std::min(cut + 1, summary.size()));
      }
    }
  }
  text +=
      "\n"
      "Options of every command:\n"
      "  --kel-url URL         the server's HTTP base URL (http or https); every command\n"
      "                        but demo and help\n"
      "  --socket-url URL      the server's WebSocket URL (ws or wss); likewise\n"
      "  --app-version V       the version sent at sign-in (default 1.0.0)\n"
      "  --team-id ID          the team whose keychain group holds the session (default\n"
      "                        KELCLI)\n"
      "  --timeout SECONDS     bound on each wait (default 30)\n"
      "  --json                print one JSON object per command on stdout\n"
      "  --verbose             print the library's log lines on stderr\n"
      "  --real-keychain       demo: keep the session in the Secret Service instead of in\n"
      "                        memory (it forgets any session that login stored)\n"
      "  --metrics             print the socket's figures after the command: requests and how\n"
      "                        they ended, round-trip percentiles, time to authenticate,\n"
      "                        reconnections, bytes (with --json: its \"metrics\" member); watch\n"
      "                        also prints them on stderr every 5 s\n"
      "  --help                this text\n"
      "\n"
      "Commands other than login, demo and help restore the session that login stored. With\n"
      "--json they print the library's records as JSON. Addresses of presence are\n"
      "\"kel-user:<user id>\", \"<user id>\" or \"<username>@<domain>\".\n"
      "\n"
      "Sessions are kept in the Secret Service keychain, the restore flag in\n"
      "$XDG_CONFIG_HOME/ServerClient/defaults-<team id>.json, both per team. Exit status:\n"
      "0 on success, 1 when the command failed, 2 for a bad command line.\n";
  return text;
}

}  // namespace kel::cli
