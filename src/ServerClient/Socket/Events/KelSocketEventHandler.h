#pragma once

#include <memory>
#include <mutex>

#include "ServerClient/Socket/Events/SocketEventHandler.h"
#include "ServerClient/platform/Socket.h"
#include "ServerClient/platform/WebSocketConnectionDelegate.h"
#include "ServerClient/rx/SerialEmitter.h"
#include "ServerClient/rx/Subjects.h"

namespace kel {

/// The WebSocket's delegate: publishes socket states and classified messages, answers server
/// pings and records the authentication acknowledgement.
///
///   new --open--> connected --"kapiId" ack--> authenticated
///    |                |                             |
///    +----------------+-------- close(code) --------+--> disconnected(reason)
///
/// A close with goingBackground is the `background` reason; normalClosure and
/// otherExpectedClosure are `expectedClose`; every other code is `lostConnection`. While the user
/// has stopped the socket, an open is answered by closing it again and publishes nothing. The
/// handler never publishes `error`.
///
/// Callbacks arrive on the socket's thread and publish synchronously there. A socket callback can
/// race `disconnect` from the socket client's thread, so every publication goes through one
/// serial emitter: states and messages reach subscribers one at a time, in the order the handler
/// saw them.
class KelSocketEventHandler final : public SocketEventHandler,
                                    public platform::WebSocketConnectionDelegate,
                                    public std::enable_shared_from_this<KelSocketEventHandler> {
 public:
  /// Makes the handler and installs it as `socket`'s delegate.
  static std::shared_ptr<KelSocketEventHandler> create(std::shared_ptr<platform::Socket> socket);

  /// The function that tells whether the user stopped the socket; empty until set.
  StopByUser stopByUser() const override;
  /// Installs what stopByUser() returns; the socket client installs its own.
  void setStopByUser(StopByUser stopByUser) override;
  rx::Observable<SocketState> stateEventPublisher() const override;
  rx::Observable<SocketMessage> messageEventPublisher() const override;
  void disconnect(platform::SocketCloseCode reason) override;
  std::optional<SocketFailure> lastFailure() const override;

  void socketDidConnect() override;
  void socketDidDisconnect(platform::SocketCloseCode closeCode) override;
  void socketDidClose(platform::SocketCloseCode closeCode, std::string reason) override;
  void socketDidReceiveError(std::exception_ptr error) override;
  void socketDidReceiveMessage(std::string text) override;
  void socketDidReceiveData(std::string bytes) override;

  /// The socket whose delegate this handler is.
  const std::shared_ptr<platform::Socket>& socket() const noexcept { return socket_; }

 private:
  explicit KelSocketEventHandler(std::shared_ptr<platform::Socket> socket);

  void publish(SocketState state);
  void publish(SocketMessage message);

  bool isStoppedByUser() const;
  void recordFailure(SocketFailure failure, bool keepError);

  mutable std::mutex mutex_;  // guards stopByUser_ and lastFailure_
  StopByUser stopByUser_;
  std::optional<SocketFailure> lastFailure_;
  rx::BehaviorSubject<SocketState> stateEventPublisher_{SocketState::newSocket()};
  rx::PublishSubject<SocketMessage> messageEventPublisher_;
  rx::SerialEmitter emitter_;  // serialises every onNext of the two subjects
  std::shared_ptr<platform::Socket> socket_;
};

}  // namespace kel
