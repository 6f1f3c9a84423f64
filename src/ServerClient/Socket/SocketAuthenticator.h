#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "ServerClient/Socket/Events/SocketEventHandler.h"
#include "ServerClient/platform/Socket.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Scheduler.h"

namespace kel {

/// What the authenticator takes by injection; empty members take their defaults.
struct SocketAuthenticatorOptions {
  /// Runs the time-out; by default a serial queue labelled "SocketAuthenticator".
  rx::SchedulerPtr authenticationScheduler{};
};

/// Sends the session token on the open socket and waits for the server's acknowledgement.
///
/// authenticate(token), when subscribed: logs "Trying to authenticate socket", writes the frame
/// "AUTH " + token, and succeeds with one element at the first `authenticated` state of the event
/// handler (its current state counts, so an already authenticated socket succeeds at once), or
/// fails with ConnectionError(timeout, -1) after `connectionTimeout`. The state stream is watched
/// before the frame is written, so an acknowledgement that arrives at once is not missed.
class SocketAuthenticator {
 public:
  /// What the authenticator takes by injection.
  using Options = SocketAuthenticatorOptions;

  /// Authenticates `socket`, reading its states from `eventHandler`, waiting up to
  /// `connectionTimeout`.
  SocketAuthenticator(std::shared_ptr<platform::Socket> socket,
                      std::shared_ptr<SocketEventHandler> eventHandler,
                      std::chrono::seconds connectionTimeout, Options options = {});

  /// See the class comment. Each subscription writes the frame again. The element arrives on
  /// the thread that reports the socket's state, the time-out on the authentication scheduler.
  /// Disposing stops the wait; the frame already written stays written.
  rx::Single<rx::Unit> authenticate(std::string token) const;

  /// How long authenticate() waits for the acknowledgement.
  std::chrono::seconds connectionTimeout() const noexcept { return connectionTimeout_; }

 private:
  std::shared_ptr<platform::Socket> socket_;
  std::shared_ptr<SocketEventHandler> eventHandler_;
  std::chrono::seconds connectionTimeout_;
  rx::SchedulerPtr authenticationScheduler_;
};

}  // namespace kel
