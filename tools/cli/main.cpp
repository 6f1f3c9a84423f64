// kel: the command-line client of a Kel server, and its demo.

#include <iostream>
#include <string_view>
#include <vector>

#include "ServerClient/Log/ServerLog.h"
#include "cli/CommandLine.h"
#include "cli/Commands.h"
#include "cli/Output.h"

int main(int argc, char** argv) {
  std::vector<std::string_view> arguments(argv + 1, argv + argc);
  const auto parsed = kel::cli::parseCommandLine(arguments);
  if (!parsed.commandLine) {
    std::cerr << "kel: " << kel::cli::printable(parsed.error)
              << "\n(kel --help lists commands and options)" << std::endl;
    return 2;
  }
  const auto& line = *parsed.commandLine;
  if (line.verbose) kel::cli::installVerboseLog();
  if (line.name == "help") {
    std::cout << kel::cli::usage("kel");
    return 0;
  }
  if (line.name == "demo") return kel::cli::runDemo(line);
  return kel::cli::runCommand(line);
}
