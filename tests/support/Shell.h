#pragma once

// Runs a command line with /bin/sh, for tests of programs that run as child processes.

#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <utility>

namespace kel::test {

/// The exit code (-1 when it did not exit) and the standard output of a command started with
/// popen(), once it ends.
inline std::pair<int, std::string> finishShell(FILE* pipe) {
  std::string output;
  if (pipe == nullptr) return {-1, output};
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
    output.append(buffer, n);
  }
  const int status = ::pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, std::move(output)};
}

inline std::pair<int, std::string> runShell(const std::string& command) {
  return finishShell(::popen(command.c_str(), "r"));
}

/// `text` as one shell word.
inline std::string shellQuoted(const std::string& text) {
  std::string result = "'";
  for (const char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return result + "'";
}

}  // namespace kel::test
