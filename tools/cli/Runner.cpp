#include "cli/Runner.h"

#include <iostream>

#include <boost/url/parse.hpp>

#include "cli/Output.h"

namespace kel::cli {

namespace {

using namespace std::chrono_literals;
using State = KelServer::State;

/// A close that no waiting mends: the server's own refusals (private codes 4400-4499, as HTTP's
/// 4xx) and policy violations. The library keeps waiting (and a restore keeps retrying) until
/// its time-outs; the command can stop at once.
bool isRefusal(const SocketFailure& failure) {
  if (!failure.closeCode) return false;
  const auto code = platform::wireCode(*failure.closeCode);
  return (code >= 4400 && code <= 4499) ||
         *failure.closeCode == platform::SocketCloseCode::policyViolation;
}

}  // namespace

Runner::Runner(const CommandLine& line) : line_(line) {
  // The parser has checked both URLs.
  server_ =
      KelServer::create(boost::urls::url(boost::urls::parse_absolute_uri(line.kelURL).value()),
                        boost::urls::url(boost::urls::parse_absolute_uri(line.socketURL).value()),
                        line.appVersion, line.teamId);
}

Runner::~Runner() {
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

void Runner::await(const std::string& what, const rx::Completable& completable) {
  await(what, completable.andThen(rx::Single<rx::Unit>::just(rx::Unit{})));
}

CommandError Runner::timedOut(const std::string& what) const {
  std::string message = what + ": no answer within " + std::to_string(line_.timeout.count()) + " s";
  if (auto socket = client()) {
    if (auto failure = socket->lastFailure()) message += "; " + failure->description();
  }
  return {"timeout", std::move(message)};
}

std::shared_ptr<SocketClient> Runner::client() const {
  return server_->socketClient().value();
}

std::optional<CommandError> Runner::socketEnded(const std::string& what, Watch watch) const {
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

AuthenticationData Runner::restore() {
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

void Runner::human(const std::string& text) const {
  if (!line_.json) std::cout << printable(text) << std::endl;
}

}  // namespace kel::cli
