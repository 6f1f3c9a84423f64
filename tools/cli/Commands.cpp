#include "cli/Commands.h"

#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include <boost/url/parse.hpp>
#include <nlohmann/json.hpp>

#include "ServerClient/Client/KelServer.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/KeepConnection/KeepConnectionService.h"
#include "ServerClient/Push/PushService.h"
#include "ServerClient/Socket/Client/SocketClient.h"
#include "cli/MainLoop.h"
#include "cli/Output.h"

namespace kel::cli {

namespace {

using namespace std::chrono_literals;
using State = KelServer::State;

/// Ends a command: the error's kind and text.
struct CommandError {
  std::string kind;
  std::string message;
};

/// What else ends a wait before the command's time bound.
enum class Watch {
  /// The server refused the socket (see refusal()).
  refusal,
  /// That, or the server closed the session's socket as the end of the session.
  sessionEnd,
};

/// A close that no waiting mends: the server's own refusals (private codes 4400-4499, as HTTP's
/// 4xx) and policy violations. The library keeps waiting (and a restore keeps retrying) until
/// its time-outs; the command can stop at once.
bool isRefusal(const SocketFailure& failure) {
  if (!failure.closeCode) return false;
  const auto code = platform::wireCode(*failure.closeCode);
  return (code >= 4400 && code <= 4499) ||
         *failure.closeCode == platform::SocketCloseCode::policyViolation;
}

std::string commandName(Command command) {
  switch (command) {
    case Command::login:
      return "login";
    case Command::whoami:
      return "whoami";
    case Command::renew:
      return "renew";
    case Command::pushRegister:
      return "push register";
    case Command::pushUnregister:
      return "push unregister";
    case Command::logout:
      return "logout";
    case Command::demo:
      return "demo";
    case Command::help:
      break;
  }
  return "help";
}

class Runner {
 public:
  explicit Runner(const CommandLine& line) : line_(line) {
    // The parser has checked both URLs.
    server_ =
        KelServer::create(boost::urls::url(boost::urls::parse_absolute_uri(line.kelURL).value()),
                          boost::urls::url(boost::urls::parse_absolute_uri(line.socketURL).value()),
                          line.appVersion, line.teamId);
  }

  ~Runner() {
    // Close the socket as for the background, never with the normal code: that would read as
    // the server having ended the session and forget what login stored.
    if (server_->socketClient().value() &&
        server_->sessionState()->currentState().value() == State::connected) {
      server_->suspend();
      loop_.runUntil(
          [&] { return server_->sessionState()->currentState().value() != State::connected; }, 2s);
    }
    server_.reset();
    loop_.runFor(50ms);
  }

  /// The value of `single`, or a CommandError: the library's error (a time-out of its own names
  /// the socket's last failure), the socket's refusal or end as soon as it is known, or this
  /// command's time bound with the socket's last failure.
  template <class T>
  T await(const std::string& what, const rx::Single<T>& single, Watch watch = Watch::refusal) {
    std::optional<CommandError> ended;
    auto outcome = loop_.await(single, line_.timeout, [&] {
      ended = socketEnded(what, watch);
      return ended.has_value();
    });
    if (outcome.error) {
      throw CommandError{errorKind(outcome.error),
                         describeErrorWithSocketFailure(outcome.error, client())};
    }
    if (outcome.value) return std::move(*outcome.value);
    if (ended) throw std::move(*ended);
    std::string message =
        what + ": no answer within " + std::to_string(line_.timeout.count()) + " s";
    if (auto failure = lastFailure()) message += "; " + failure->description();
    throw CommandError{"timeout", std::move(message)};
  }

  std::shared_ptr<SocketClient> client() const { return server_->socketClient().value(); }

  std::optional<SocketFailure> lastFailure() const {
    auto socket = client();
    return socket ? socket->lastFailure() : std::nullopt;
  }

  std::optional<CommandError> socketEnded(const std::string& what, Watch watch) const {
    auto socket = client();
    if (!socket) return std::nullopt;
    auto failure = socket->lastFailure();
    if (failure && isRefusal(*failure)) {
      return CommandError{"connection/refused", what + ": " + failure->description()};
    }
    if (watch == Watch::sessionEnd &&
        socket->currentStatus() ==
            SocketState::disconnected(SocketStateDisconnectedReason::expectedClose)) {
      return CommandError{"session/ended",
                          what + ": the server ended the session" +
                              (failure ? " (" + failure->description() + ")" : std::string())};
    }
    return std::nullopt;
  }

  AuthenticationData restore() {
    try {
      return await("restore", server_->restoreSession(false));
    } catch (CommandError& error) {
      // The library keeps retrying a stored session that the server refuses.
      if (error.kind == "timeout" || error.kind == "connection/refused") {
        error.message +=
            " (a stored session that the server refuses is retried until then; "
            "kel login signs in anew)";
      }
      throw;
    }
  }

  nlohmann::json run() {
    switch (line_.command) {
      case Command::login: {
        const auto data = await("sign-in", server_->connect(line_.token));
        human("signed in as " + data.user.userId + " (session " + data.session.sessionID +
              ", stored in the keychain)");
        return sessionJson(data);
      }
      case Command::whoami: {
        const auto data = restore();
        human(data.user.userId + " <" + data.user.email + ">, " + data.user.username + ", role " +
              data.user.role + ", session " + data.session.sessionID);
        return sessionJson(data);
      }
      case Command::renew: {
        const auto data = restore();
        // The facade's loop renews without looking at the answer; a command has to tell it.
        KeepConnectionService keepConnection(server_->socketClient());
        const auto what = "renewal of session " + data.session.sessionID;
        try {
          await(what, keepConnection.renewSessionOrError(server_->userSession()).take(1).asSingle(),
                Watch::sessionEnd);
        } catch (CommandError& error) {
          // A request completed without an answer: the socket went away under it.
          if (auto ended = socketEnded(what, Watch::sessionEnd)) throw std::move(*ended);
          if (error.kind.starts_with("connection/") && error.kind != "connection/refused") {
            error.message = what + " refused: " + error.message;
          }
          throw;
        }
        human(what + " accepted");
        return {{"session", {{"id", data.session.sessionID}}}};
      }
      case Command::pushRegister: {
        restore();
        await("push register", server_->pushService()->sendPushToken(
                                   line_.pushToken, line_.production, line_.deviceId));
        human("push token registered for device " + line_.deviceId);
        return {{"deviceId", line_.deviceId}, {"production", line_.production}};
      }
      case Command::pushUnregister: {
        restore();
        await("push unregister", server_->pushService()->deletePushToken(line_.deviceId));
        human("push token removed for device " + line_.deviceId);
        return {{"deviceId", line_.deviceId}};
      }
      case Command::logout: {
        const auto data = restore();
        await("logout", server_->logout(line_.deviceId));
        if (server_->canRestoreSession()) {
          throw CommandError{"state", "logout: a session is still stored"};
        }
        human("logged out " + data.user.userId + "; nothing stored");
        return {{"user", data.user.userId}};
      }
      default:
        throw CommandError{"usage", "not a server command"};
    }
  }

 private:
  void human(const std::string& text) const {
    if (!line_.json) std::cout << printable(text) << std::endl;
  }

  const CommandLine& line_;
  MainLoop loop_;
  std::shared_ptr<KelServer> server_;
};

}  // namespace

int runCommand(const CommandLine& line) {
  const auto name = commandName(line.command);
  nlohmann::json result;
  try {
    Runner runner(line);
    result = runner.run();
  } catch (const CommandError& error) {
    if (line.json) {
      std::cout << jsonLine({{"command", name},
                             {"ok", false},
                             {"error", {{"kind", error.kind}, {"message", error.message}}}})
                << std::endl;
    }
    std::cerr << "kel " << name << ": " << printable(error.kind) << ": " << printable(error.message)
              << std::endl;
    return 1;
  } catch (const std::exception& error) {
    const auto pointer = std::current_exception();
    if (line.json) {
      std::cout << jsonLine({{"command", name}, {"ok", false}, {"error", errorJson(pointer)}})
                << std::endl;
    }
    std::cerr << "kel " << name << ": " << printable(errorKind(pointer)) << ": "
              << printable(describeError(pointer)) << std::endl;
    return 1;
  }
  if (line.json) {
    result["command"] = name;
    result["ok"] = true;
    std::cout << jsonLine(result) << std::endl;
  }
  return 0;
}

}  // namespace kel::cli
