#pragma once

#include "cli/CommandLine.h"

namespace kel::cli {

/// Runs one command against the server the command line names; returns the exit status.
int runCommand(const CommandLine& line);

/// Runs the demo session against an emulator of its own; returns the exit status.
int runDemo(const CommandLine& line);

}  // namespace kel::cli
