#pragma once

#include <functional>
#include <optional>
#include <string>

#include "ServerClient/Socket/Model/SocketMessage.h"
#include "ServerClient/Socket/Model/SocketState.h"
#include "ServerClient/platform/SocketCloseCode.h"
#include "ServerClient/rx/Observable.h"

namespace kel {

/// Whether the user stopped the socket, and with which close code.
struct StopByUserState {
  bool isStopped = false;  ///< stop() was called
  /// The code stop() closed with; invalid while not stopped.
  platform::SocketCloseCode reason = platform::SocketCloseCode::invalid;

  /// Same flag and code.
  bool operator==(const StopByUserState&) const = default;
};

/// Asked for the current stop state; empty when nobody has said anything yet.
using StopByUser = std::function<StopByUserState()>;

/// The last thing that went wrong with a socket: the code (and reason) with which the server or
/// the network closed it, or the transport's error (refused connection, TLS, protocol). The
/// connection waits report only their time-out; this names the cause beside it.
struct SocketFailure {
  /// Set when the socket was closed; empty for a transport error.
  std::optional<platform::SocketCloseCode> closeCode;
  /// The close frame's reason, or the error's text; without secrets, cut short.
  std::string text;
  /// The error was a CertificatePinMismatch: the server's key is not pinned.
  bool pinMismatch = false;

  /// "the socket was closed with 4401 (invalid session token)", "the socket was closed with 1006
  /// (abnormalClosure)" when no reason came, or the error's text.
  std::string description() const;

  /// Every field equal.
  bool operator==(const SocketFailure&) const = default;
};

/// Turns the WebSocket's callbacks into a stream of socket states and a stream of classified
/// messages.
class SocketEventHandler {
 public:
  virtual ~SocketEventHandler() = default;

  /// The function asked whether the user stopped the socket; empty until set.
  virtual StopByUser stopByUser() const = 0;
  /// Installs what stopByUser() returns.
  virtual void setStopByUser(StopByUser stopByUser) = 0;

  /// The socket's state; a new subscriber first receives the current state.
  virtual rx::Observable<SocketState> stateEventPublisher() const = 0;
  /// Responses and events, as classified from incoming text frames.
  virtual rx::Observable<SocketMessage> messageEventPublisher() const = 0;

  /// Handles `reason` exactly as if the socket had reported a disconnection with it.
  virtual void disconnect(platform::SocketCloseCode reason) = 0;

  /// The last failure since the socket last opened (or ever, before it first opened); nothing
  /// when none. Closes asked for with stop are not failures.
  virtual std::optional<SocketFailure> lastFailure() const { return std::nullopt; }
};

}  // namespace kel
