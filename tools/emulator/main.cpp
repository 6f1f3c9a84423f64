// kel-emulator: runs the emulator until SIGINT or SIGTERM. See --help.

#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <exception>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "emulator/CommandLine.h"
#include "emulator/Emulator.h"
#include "emulator/Fixture.h"

namespace {

void logLine(std::string_view line) {
  static std::mutex mutex;
  const auto now = std::chrono::system_clock::now();
  const auto time = std::chrono::system_clock::to_time_t(now);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&time, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%H:%M:%S", &local);
  std::lock_guard lock(mutex);
  std::fprintf(stderr, "%s.%03d kel-emulator: %.*s\n", stamp, static_cast<int>(millis),
               static_cast<int>(line.size()), line.data());
}

}  // namespace

int main(int argc, char** argv) {
  using namespace kel::emulator;
  const std::string_view program = argc > 0 ? argv[0] : "kel-emulator";
  std::vector<std::string_view> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  auto parsed = parseCommandLine(arguments);
  if (!parsed.commandLine) {
    std::cerr << program << ": " << parsed.error << "\n(see --help)\n";
    return 2;
  }
  auto& commandLine = *parsed.commandLine;
  if (commandLine.help) {
    std::cout << usage(program);
    return 0;
  }
  if (auto error = loadTlsFiles(commandLine)) {
    std::cerr << program << ": " << *error << '\n';
    return 2;
  }
  if (!commandLine.quiet) commandLine.options.log = logLine;
  std::optional<nlohmann::json> fixture;
  if (commandLine.fixtureFile) {
    try {
      fixture = readFixtureFile(*commandLine.fixtureFile);
    } catch (const std::invalid_argument& e) {
      std::cerr << program << ": " << e.what() << '\n';
      return 2;
    }
  }

  // Blocked before any thread starts, so every thread inherits the mask and the signals wait for
  // sigwait below instead of killing the process mid-write.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  try {
    const bool tls = commandLine.options.tls.has_value();
    Emulator emulator(commandLine.options);
    std::vector<Session> sessions;
    std::vector<std::optional<std::string>> signInTokens;
    for (const auto& user : commandLine.users) {
      emulator.addAccount(defaultAccount(user.id, user.signInToken));
      sessions.push_back(emulator.sessionStore().createSession(user.id, std::nullopt, user.token));
      signInTokens.push_back(user.signInToken);
    }
    if (fixture) {
      try {
        for (auto& session : emulator.loadFixture(*fixture)) {
          signInTokens.push_back(emulator.signIn().account(session.userId)->signInToken);
          sessions.push_back(std::move(session));
        }
      } catch (const std::invalid_argument& e) {
        std::cerr << program << ": " << *commandLine.fixtureFile << ": " << e.what() << '\n';
        return 2;
      }
    }
    const auto urls = emulator.start();
    std::cout << startupLine(urls, tls, sessions, signInTokens) << std::endl;

    int signal = 0;
    sigwait(&stopSignals, &signal);
    if (!commandLine.quiet) logLine(signal == SIGINT ? "SIGINT: stopping" : "SIGTERM: stopping");
    emulator.stop();
  } catch (const std::exception& e) {
    std::cerr << program << ": " << e.what() << '\n';
    return 1;
  }
  return 0;
}
