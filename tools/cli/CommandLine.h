#pragma once

// The kel program's command line, kept apart from main() so that the rules live in one place.
//
// Every command is one row of a table (Command): its words, its operands, its options, a
// check of what the options' syntax cannot say, and the function that runs it. Each domain keeps
// its rows in its own file (sessionCommands() in Commands.cpp, ContactsCommands.cpp, ...); the
// parser and `kel help` read them all through commandGroups().

#include <chrono>
#include <cstddef>
#include <limits>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace kel::cli {

class Runner;

/// A command line that cannot run: why, in words for the person who typed it.
struct UsageError {
  std::string text;
};

/// One option of a command: "--name VALUE", or a switch "--name" when `value` is empty. One name
/// takes a value in every command that has it, or in none.
struct Flag {
  std::string_view name;
  std::string_view value{};
  bool required = false;
  bool repeatable = false;
};

/// What a command got besides the options every command shares.
struct Arguments {
  /// The words after the command's own words.
  std::vector<std::string> operands;
  /// Each option's values in the order given; a switch holds one empty text.
  std::map<std::string, std::vector<std::string>, std::less<>> flags;

  bool has(std::string_view flag) const;
  /// The value of an option that may be given once; nothing when absent.
  std::optional<std::string> value(std::string_view flag) const;
  /// Every value of a repeatable option; empty when absent.
  std::vector<std::string> values(std::string_view flag) const;

  bool operator==(const Arguments&) const = default;
};

inline constexpr std::size_t kAnyNumber = std::numeric_limits<std::size_t>::max();

struct Command {
  std::vector<std::string_view> words{};
  /// The operands as help shows them ("ID USER...").
  std::string_view operands{};
  std::size_t minOperands = 0;
  std::size_t maxOperands = 0;
  std::vector<Flag> flags{};
  /// One line of help (a "\n" continues it on the next line).
  std::string_view summary{};
  /// Whether it talks to a server, and so needs --kel-url and --socket-url.
  bool needsServer = true;
  /// Refuses values and combinations that the options' syntax allows (throws UsageError); may be
  /// null.
  void (*check)(const Arguments&) = nullptr;
  /// Runs the command; its JSON result gets "command" and "ok" added. Null for help and demo,
  /// which main() runs itself.
  nlohmann::json (*run)(Runner&, const Arguments&) = nullptr;

  /// "groups add".
  std::string name() const;
};

struct CommandGroup {
  std::string_view title;
  std::vector<Command> commands;
};

/// Every command, in the order help lists them.
const std::vector<const CommandGroup*>& commandGroups();

// The tables, one per file.
const CommandGroup& sessionCommands();
const CommandGroup& contactsCommands();
const CommandGroup& addressBooksCommands();
const CommandGroup& presenceCommands();
const CommandGroup& groupsCommands();
const CommandGroup& meetingsCommands();
const CommandGroup& callHistoryCommands();
const CommandGroup& alertsCommands();
const CommandGroup& chatsCommands();
const CommandGroup& eventCommands();

struct CommandLine {
  /// Which command; never null after parsing.
  const Command* command = nullptr;
  /// Its name ("help" when --help was given).
  std::string name;
  Arguments arguments;

  // Where and as whom: every command that needsServer needs the two URLs.
  std::string kelURL;
  std::string socketURL;
  std::string appVersion = "1.0.0";
  std::string teamId = "KELCLI";

  bool json = false;
  bool verbose = false;
  bool realKeychain = false;
  /// Print the socket's metrics after the command (and while watching).
  bool metrics = false;
  /// Bound on each wait of a command (sign-in, restore, a request).
  std::chrono::seconds timeout{30};
};

struct CommandLineResult {
  std::optional<CommandLine> commandLine;
  /// Why the arguments were refused, when commandLine is empty.
  std::string error;
};

/// `arguments` without the program name. Options may come before, between or after the command
/// words and operands, and take their value as the next argument or after "="
/// ("--kel-url=http://..."); a value may begin with "--".
CommandLineResult parseCommandLine(std::span<const std::string_view> arguments);

/// The --help text: every command of every table with its operands and options.
std::string usage(std::string_view program);

/// A whole number from `min` to `max` for `what`, or a UsageError naming it.
long long parseNumber(std::string_view what, std::string_view text, long long min, long long max);

/// An instant for `what`: "now", "now+N" or "now-N" with N a whole number of seconds, minutes,
/// hours or days ("now+90m", "now-2d"), "YYYY-MM-DDTHH:MM[:SS]Z" in UTC, or whole milliseconds
/// since the Unix epoch; otherwise a UsageError naming it. `now` is the instant "now" stands for.
std::chrono::system_clock::time_point parseInstant(std::string_view what, std::string_view text,
                                                   std::chrono::system_clock::time_point now);

}  // namespace kel::cli
