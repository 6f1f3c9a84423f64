#include "ServerClient/Socket/Events/KelSocketEventHandler.h"

#include "ServerClient/Common/Json.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Common/SafeText.h"
#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/platform/TlsClientContext.h"

namespace kel {

using platform::SocketCloseCode;

namespace {
// A close frame's reason has at most 123 bytes; more is not a reason.
constexpr std::size_t kCloseReasonLimit = 123;
}  // namespace

std::shared_ptr<KelSocketEventHandler> KelSocketEventHandler::create(
    std::shared_ptr<platform::Socket> socket) {
  std::shared_ptr<KelSocketEventHandler> handler(new KelSocketEventHandler(std::move(socket)));
  handler->socket_->setDelegate(handler);
  return handler;
}

KelSocketEventHandler::KelSocketEventHandler(std::shared_ptr<platform::Socket> socket)
    : socket_(std::move(socket)) {}

StopByUser KelSocketEventHandler::stopByUser() const {
  std::lock_guard lock(mutex_);
  return stopByUser_;
}

void KelSocketEventHandler::setStopByUser(StopByUser stopByUser) {
  std::lock_guard lock(mutex_);
  stopByUser_ = std::move(stopByUser);
}

rx::Observable<SocketState> KelSocketEventHandler::stateEventPublisher() const {
  return stateEventPublisher_.asObservable();
}

rx::Observable<SocketMessage> KelSocketEventHandler::messageEventPublisher() const {
  return messageEventPublisher_.asObservable();
}

void KelSocketEventHandler::publish(SocketState state) {
  emitter_.run([this, state = std::move(state)] { stateEventPublisher_.onNext(state); });
}

void KelSocketEventHandler::publish(SocketMessage message) {
  emitter_.run([this, message = std::move(message)] { messageEventPublisher_.onNext(message); });
}

void KelSocketEventHandler::disconnect(SocketCloseCode reason) {
  socketDidDisconnect(reason);
}

std::optional<SocketFailure> KelSocketEventHandler::lastFailure() const {
  std::lock_guard lock(mutex_);
  return lastFailure_;
}

bool KelSocketEventHandler::isStoppedByUser() const {
  // Asked outside the lock: the function reads the socket client's own state.
  auto stopByUser = this->stopByUser();
  return stopByUser && stopByUser().isStopped;
}

void KelSocketEventHandler::recordFailure(SocketFailure failure, bool keepError) {
  std::lock_guard lock(mutex_);
  // The close that follows a transport error says less than the error did.
  if (keepError && lastFailure_ && !lastFailure_->closeCode) return;
  lastFailure_ = std::move(failure);
}

void KelSocketEventHandler::socketDidConnect() {
  KEL_LOG_DEBUG("socketDidConnect()", "Socket connected");
  {
    std::lock_guard lock(mutex_);
    lastFailure_.reset();
  }
  // Asked outside the lock: the function reads the socket client's own state.
  if (auto stopByUser = this->stopByUser()) {
    if (auto state = stopByUser(); state.isStopped) {
      socket_->disconnect(state.reason);
      return;
    }
  }
  publish(SocketState::connected());
}

void KelSocketEventHandler::socketDidDisconnect(SocketCloseCode closeCode) {
  socketDidClose(closeCode, {});
}

void KelSocketEventHandler::socketDidClose(SocketCloseCode closeCode, std::string reason) {
  if (!isStoppedByUser()) {
    // The codes that only report how a connection ended without a close frame.
    const bool reportedOnly = closeCode == SocketCloseCode::abnormalClosure ||
                              closeCode == SocketCloseCode::noStatusReceived ||
                              closeCode == SocketCloseCode::tlsHandshakeFailure;
    recordFailure({closeCode, displayText(reason, kCloseReasonLimit)}, reportedOnly);
  }
  switch (closeCode) {
    case SocketCloseCode::goingBackground:
      KEL_LOG_DEBUG("socketDidDisconnect(closeCode:)", "Socket going background");
      publish(SocketState::disconnected(SocketStateDisconnectedReason::background));
      return;
    case SocketCloseCode::normalClosure:
    case SocketCloseCode::otherExpectedClosure:
      KEL_LOG_DEBUG("socketDidDisconnect(closeCode:)", "Socket disconnected");
      publish(SocketState::disconnected(SocketStateDisconnectedReason::expectedClose));
      return;
    default:
      KEL_LOG_DEBUG("socketDidDisconnect(closeCode:)", "Socket disconnected with lost connection");
      publish(SocketState::disconnected(SocketStateDisconnectedReason::lostConnection));
      return;
  }
}

void KelSocketEventHandler::socketDidReceiveError(std::exception_ptr error) {
  // The disconnect callback that follows a transport error drives the state.
  auto text = describeError(error);
  KEL_LOG_ERROR("socketDidReceiveError(error:)", "KelSocket: Error " + text);
  const bool pinMismatch = errorAs<platform::CertificatePinMismatch>(error) != nullptr;
  if (!isStoppedByUser()) recordFailure({std::nullopt, std::move(text), pinMismatch}, false);
}

void KelSocketEventHandler::socketDidReceiveMessage(std::string text) {
  auto message = SocketMessage::create(text);
  switch (message.kind()) {
    case SocketMessage::Kind::response:
      publish(std::move(message));
      return;
    case SocketMessage::Kind::event:
      KEL_LOG_DEBUG("socketDidReceiveMessage(text:)",
                    "Event received " +
                        displayText(dumpJson(*message.asEvent()->json).value_or("<unprintable>")));
      publish(std::move(message));
      return;
    case SocketMessage::Kind::auth:
      KEL_LOG_DEBUG("socketDidReceiveMessage(text:)", "Socket authenticated");
      publish(SocketState::authenticated());
      return;
    case SocketMessage::Kind::ping:
      KEL_LOG_VERBOSE("socketDidReceiveMessage(text:)", "Ping received");
      socket_->sendPong();
      return;
    case SocketMessage::Kind::unknown:
      KEL_LOG_DEBUG("socketDidReceiveMessage(text:)",
                    "Unknown message received: " + displayText(text));
      return;
  }
}

void KelSocketEventHandler::socketDidReceiveData(std::string bytes) {
  // The protocol carries nothing in binary frames.
  KEL_LOG_DEBUG(
      "socketDidReceiveData(data:)",
      "Message received " +
          (isValidUtf8(bytes) ? "Optional(\"" + displayText(bytes) + "\")" : std::string("nil")));
}

}  // namespace kel
