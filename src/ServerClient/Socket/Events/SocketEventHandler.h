#pragma once

#include <functional>

#include "ServerClient/Socket/Model/SocketMessage.h"
#include "ServerClient/Socket/Model/SocketState.h"
#include "ServerClient/platform/SocketCloseCode.h"
#include "ServerClient/rx/Observable.h"

namespace kel {

/// Whether the user stopped the socket, and with which close code.
struct StopByUserState {
  bool isStopped = false;
  platform::SocketCloseCode reason = platform::SocketCloseCode::invalid;

  bool operator==(const StopByUserState&) const = default;
};

/// Asked for the current stop state; empty when nobody has said anything yet.
using StopByUser = std::function<StopByUserState()>;

/// Turns the WebSocket's callbacks into a stream of socket states and a stream of classified
/// messages.
class SocketEventHandler {
 public:
  virtual ~SocketEventHandler() = default;

  virtual StopByUser stopByUser() const = 0;
  virtual void setStopByUser(StopByUser stopByUser) = 0;

  /// The socket's state; a new subscriber first receives the current state.
  virtual rx::Observable<SocketState> stateEventPublisher() const = 0;
  /// Responses and events, as classified from incoming text frames.
  virtual rx::Observable<SocketMessage> messageEventPublisher() const = 0;

  /// Handles `reason` exactly as if the socket had reported a disconnection with it.
  virtual void disconnect(platform::SocketCloseCode reason) = 0;
};

}  // namespace kel
