#pragma once

#include <exception>
#include <string>

#include "ServerClient/platform/SocketCloseCode.h"

namespace kel::platform {

/// What a Socket reports about its connection. See Socket.h for when, in which order and on which
/// thread the calls are made. Implementations of these functions must not throw.
class WebSocketConnectionDelegate {
 public:
  virtual ~WebSocketConnectionDelegate() = default;

  /// The connection is open: the upgrade succeeded.
  virtual void socketDidConnect() = 0;
  /// The connection has ended, with the code the library asked for in disconnect() or else the
  /// peer's code, noStatusReceived, abnormalClosure or tlsHandshakeFailure.
  virtual void socketDidDisconnect(SocketCloseCode closeCode) = 0;
  /// What a Socket calls when the connection has ended: socketDidDisconnect with the close
  /// frame's reason text (empty when the peer gave none or no close frame came). By default the
  /// reason is dropped.
  virtual void socketDidClose(SocketCloseCode closeCode, std::string reason) {
    (void)reason;
    socketDidDisconnect(closeCode);
  }
  /// Something failed (opening, reading or writing). Informational: when the failure ends the
  /// connection, socketDidDisconnect follows.
  virtual void socketDidReceiveError(std::exception_ptr error) = 0;
  /// A text frame arrived. A real connection delivers valid UTF-8 only (a peer that sends
  /// anything else is disconnected with invalidFramePayloadData); receivers must not rely on it.
  virtual void socketDidReceiveMessage(std::string text) = 0;
  /// A binary frame arrived.
  virtual void socketDidReceiveData(std::string bytes) = 0;
};

}  // namespace kel::platform
