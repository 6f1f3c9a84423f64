#include "cli/Commands.h"

#include <iostream>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "ServerClient/KeepConnection/KeepConnectionService.h"
#include "ServerClient/Push/PushService.h"
#include "cli/Output.h"
#include "cli/Runner.h"

namespace kel::cli {

namespace {

nlohmann::json login(Runner& runner, const Arguments& arguments) {
  const auto data = runner.await("sign-in", runner.server().connect(*arguments.value("--token")));
  runner.human("signed in as " + data.user.userId + " (session " + data.session.sessionID +
               ", stored in the keychain)");
  return sessionJson(data);
}

nlohmann::json whoami(Runner& runner, const Arguments&) {
  const auto data = runner.restore();
  runner.human(data.user.userId + " <" + data.user.email + ">, " + data.user.username + ", role " +
               data.user.role + ", session " + data.session.sessionID);
  return sessionJson(data);
}

nlohmann::json renew(Runner& runner, const Arguments&) {
  const auto data = runner.restore();
  // The facade's loop renews without looking at the answer; a command has to tell it.
  KeepConnectionService keepConnection(runner.server().socketClient());
  const auto what = "renewal of session " + data.session.sessionID;
  try {
    runner.await(
        what, keepConnection.renewSessionOrError(runner.server().userSession()).take(1).asSingle(),
        Watch::sessionEnd);
  } catch (CommandError& error) {
    // A request completed without an answer: the socket went away under it.
    if (auto ended = runner.socketEnded(what, Watch::sessionEnd)) throw std::move(*ended);
    if (error.kind.starts_with("connection/") && error.kind != "connection/refused") {
      error.message = what + " refused: " + error.message;
    }
    throw;
  }
  runner.human(what + " accepted");
  return {{"session", {{"id", data.session.sessionID}}}};
}

nlohmann::json pushRegister(Runner& runner, const Arguments& arguments) {
  runner.restore();
  const auto device = *arguments.value("--device-id");
  const bool production = arguments.has("--production");
  runner.await("push register", runner.server().pushService()->sendPushToken(
                                    *arguments.value("--push-token"), production, device));
  runner.human("push token registered for device " + device);
  return {{"deviceId", device}, {"production", production}};
}

nlohmann::json pushUnregister(Runner& runner, const Arguments& arguments) {
  runner.restore();
  const auto device = *arguments.value("--device-id");
  runner.await("push unregister", runner.server().pushService()->deletePushToken(device));
  runner.human("push token removed for device " + device);
  return {{"deviceId", device}};
}

nlohmann::json logout(Runner& runner, const Arguments& arguments) {
  const auto data = runner.restore();
  runner.await("logout", runner.server().logout(*arguments.value("--device-id")));
  if (runner.server().canRestoreSession()) {
    throw CommandError{"state", "logout: a session is still stored"};
  }
  runner.human("logged out " + data.user.userId + "; nothing stored");
  return {{"user", data.user.userId}};
}

constexpr Flag kDevice{"--device-id", "ID", true};

}  // namespace

const CommandGroup& sessionCommands() {
  static const CommandGroup group{
      "Session",
      {
          {.words = {"demo"},
           .summary = "run a whole session against an emulator started in-process",
           .needsServer = false},
          {.words = {"login"},
           .flags = {{"--token", "T", true}},
           .summary = "sign in with the sign-in token T and store the session",
           .run = login},
          {.words = {"whoami"},
           .summary = "restore the stored session and print its user",
           .run = whoami},
          {.words = {"renew"},
           .summary = "restore the stored session and renew it once",
           .run = renew},
          {.words = {"push", "register"},
           .flags = {kDevice, {"--push-token", "T", true}, {"--production", ""}},
           .summary = "register the push token for the device (--production: the production\n"
                      "push environment)",
           .run = pushRegister},
          {.words = {"push", "unregister"},
           .flags = {kDevice},
           .summary = "remove the device's push registration",
           .run = pushUnregister},
          {.words = {"logout"},
           .flags = {kDevice},
           .summary = "remove the device's push token, end the session, forget it",
           .run = logout},
          {.words = {"help"}, .summary = "this text", .needsServer = false},
      }};
  return group;
}

namespace {

/// --metrics: the figures taken once the command ended, before the runner closes the socket,
/// printed after the command's own output whether it succeeded or not.
class MetricsReport {
 public:
  explicit MetricsReport(const CommandLine& line) : line_(line) {}

  void take(Runner& runner) {
    if (line_.metrics && !metrics_) metrics_ = runner.server().metricsSnapshot();
  }
  /// Adds them to the command's JSON result, or prints them for people.
  void add(nlohmann::json& result) const {
    if (!metrics_) return;
    if (line_.json) {
      result["metrics"] = metricsJson(*metrics_);
    } else {
      for (const auto& text : metricsLines(*metrics_)) {
        std::cout << printable("metrics: " + text) << '\n';
      }
      std::cout << std::flush;
    }
  }

 private:
  const CommandLine& line_;
  std::optional<KelMetrics> metrics_;
};

}  // namespace

int runCommand(const CommandLine& line) {
  nlohmann::json result;
  MetricsReport metrics(line);
  try {
    Runner runner(line);
    try {
      result = line.command->run(runner, line.arguments);
      metrics.take(runner);
    } catch (const UsageError& error) {
      metrics.take(runner);
      throw CommandError{"usage", error.text};
    } catch (...) {
      metrics.take(runner);
      throw;
    }
  } catch (const CommandError& error) {
    nlohmann::json failure = {{"command", line.name},
                              {"ok", false},
                              {"error", {{"kind", error.kind}, {"message", error.message}}}};
    metrics.add(failure);
    if (line.json) std::cout << jsonLine(failure) << std::endl;
    std::cerr << "kel " << line.name << ": " << printable(error.kind) << ": "
              << printable(error.message) << std::endl;
    return 1;
  } catch (const std::exception& error) {
    const auto pointer = std::current_exception();
    nlohmann::json failure = {{"command", line.name}, {"ok", false}, {"error", errorJson(pointer)}};
    metrics.add(failure);
    if (line.json) std::cout << jsonLine(failure) << std::endl;
    std::cerr << "kel " << line.name << ": " << printable(errorKind(pointer)) << ": "
              << printable(describeError(pointer)) << std::endl;
    return 1;
  }
  metrics.add(result);
  if (line.json) {
    result["command"] = line.name;
    result["ok"] = true;
    std::cout << jsonLine(result) << std::endl;
  }
  return 0;
}

}  // namespace kel::cli
