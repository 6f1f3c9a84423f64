#include "ServerClient/Socket/Client/KelSocketClient.h"

#include <utility>

#include "ServerClient/Client/ServerLog.h"
#include "ServerClient/Common/Json.h"
#include "ServerClient/Common/Random.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Socket/Model/ErrorCode.h"
#include "ServerClient/rx/Schedulers.h"

namespace kel {

using platform::OvNetworkStatus;
using platform::SocketCloseCode;

namespace {

const std::exception_ptr& noSocketClientError() {
  static const auto error = makeError(ConnectionError(ConnectionErrorType::noSocketClient, -1));
  return error;
}

const std::exception_ptr& requestTimeoutError() {
  static const auto error = makeError(ConnectionError(ConnectionErrorType::timeout, -1));
  return error;
}

std::string dumpForLog(const nlohmann::json& json) {
  return dumpJson(json).value_or("<unprintable>");
}

}  // namespace

std::string AnyRequest::describe() const {
  try {
    return toDictionary().dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  } catch (...) {
    return "<unprintable>";
  }
}

std::shared_ptr<KelSocketClient> KelSocketClient::create(
    std::shared_ptr<platform::Socket> socket,
    std::shared_ptr<SocketEventHandler> socketEventHandler,
    std::shared_ptr<ServerEventHandler> serverEventHandler, ReconnectAuth reconnectAuth,
    rx::Duration reconnectionAttempt, Options options) {
  auto client = std::make_shared<KelSocketClient>(
      Passkey{}, std::move(socket), std::move(socketEventHandler), std::move(serverEventHandler),
      std::move(reconnectAuth), reconnectionAttempt, std::move(options));
  client->subscribeToSocketEvents();

  // The handler and the reconnector ask the client whether the user stopped the socket; once the
  // client is gone the answer is "not stopped".
  std::weak_ptr<const KelSocketClient> weak = client;
  StopByUser stopByUser = [weak] {
    auto self = weak.lock();
    return self ? self->stopByUser() : StopByUserState{};
  };
  client->socketEventHandler_->setStopByUser(stopByUser);
  client->socketReconnector_->setStopByUser(std::move(stopByUser));

  KEL_LOG_DEBUG("Connecting to " + std::string(client->socket_->url().buffer()));
  return client;
}

KelSocketClient::KelSocketClient(Passkey, std::shared_ptr<platform::Socket> socket,
                                 std::shared_ptr<SocketEventHandler> socketEventHandler,
                                 std::shared_ptr<ServerEventHandler> serverEventHandler,
                                 ReconnectAuth reconnectAuth, rx::Duration reconnectionAttempt,
                                 Options options)
    : reconnectAuth_(std::move(reconnectAuth)),
      eventHandler_(std::move(serverEventHandler)),
      socketID_(makeUUIDString()),
      socket_(std::move(socket)),
      socketEventHandler_(std::move(socketEventHandler)),
      networkManager_(options.networkManager ? std::move(options.networkManager)
                                             : std::make_shared<platform::InMemoryNetworkManager>(
                                                   OvNetworkStatus::reachable)),
      applicationLifecycle_(options.applicationLifecycle
                                ? std::move(options.applicationLifecycle)
                                : platform::ApplicationLifecycle::shared()),
      socketScheduler_(options.socketScheduler
                           ? std::move(options.socketScheduler)
                           : std::make_shared<rx::SerialDispatchQueueScheduler>("KelSocket")) {
  socketConnector_ = std::make_shared<SocketConnector>(
      socket_, socketEventHandler_, kConnectionTimeout,
      SocketConnector::Options{std::move(options.connectionScheduler),
                               std::move(options.cookieHeaders)});
  socketAuthenticator_ = std::make_shared<SocketAuthenticator>(
      socket_, socketEventHandler_, kConnectionTimeout,
      SocketAuthenticator::Options{std::move(options.authenticationScheduler)});
  socketReconnector_ = SocketReconnector::create(
      socket_, socketConnector_, socketAuthenticator_, reconnectionAttempt,
      SocketReconnector::Options{std::move(options.reconnectionScheduler)});
}

KelSocketClient::~KelSocketClient() {
  // The subscriptions go first, so that nothing reaches a client half torn down.
  disposeBag_.dispose();
}

SocketState KelSocketClient::currentStatus() const {
  std::lock_guard lock(statusMutex_);
  return currentStatus_;
}

void KelSocketClient::setCurrentStatus(const SocketState& state) {
  std::lock_guard lock(statusMutex_);
  currentStatus_ = state;
  currentKind_.store(state.kind(), std::memory_order_release);
}

rx::Observable<SocketState> KelSocketClient::socketConnectionEventChannel() const {
  return socketEventHandler_->stateEventPublisher();
}

void KelSocketClient::subscribeToSocketEvents() {
  std::weak_ptr<KelSocketClient> weak = weak_from_this();

  disposeBag_.insert(
      socketEventHandler_->stateEventPublisher().subscribe([weak](const SocketState& state) {
        auto self = weak.lock();
        if (!self) return;
        self->setCurrentStatus(state);
        if (auto reason = state.reason()) self->onDisconnectedEvent(*reason);
      }));

  disposeBag_.insert(
      socketEventHandler_->messageEventPublisher().subscribe([weak](const SocketMessage& message) {
        auto self = weak.lock();
        if (!self) return;
        if (const auto* response = message.asResponse()) {
          KEL_LOG_DEBUG("Response received " + dumpForLog(response->json) +
                        " to socketID: " + self->socketID_);
          self->returnResponse(response->json, response->id);
        } else if (const auto* event = message.asEvent()) {
          if (self->eventHandler_) self->eventHandler_->handle(event->json);
        }
      }));

  // A return to the foreground counts as the network being reachable; a repeat of the same
  // status is no news.
  auto foreground = applicationLifecycle_->willEnterForeground().map(
      [](const rx::Unit&) { return OvNetworkStatus::reachable; });
  disposeBag_.insert(
      rx::Observable<OvNetworkStatus>::merge({foreground, networkManager_->networkStatusStream()})
          .distinctUntilChanged()
          .withLatestFrom(socketEventHandler_->stateEventPublisher())
          .filter([](const std::pair<OvNetworkStatus, SocketState>& pair) {
            return pair.first == OvNetworkStatus::reachable &&
                   pair.second.kind() == SocketState::Kind::authenticated;
          })
          .subscribe([weak](const std::pair<OvNetworkStatus, SocketState>&) {
            if (auto self = weak.lock()) self->socket_->sendPong();
          }));
}

void KelSocketClient::onDisconnectedEvent(SocketStateDisconnectedReason reason) {
  if (reason != SocketStateDisconnectedReason::lostConnection || !reconnectAuth_) return;
  if (auto token = reconnectAuth_()) socketReconnector_->launchReconnection(std::move(*token));
}

void KelSocketClient::returnResponse(const nlohmann::json& response, std::int64_t forRequest) {
  auto observer = requestStore_.removeRequest(forRequest);
  if (!observer) {
    KEL_LOG_ERROR("No request found for response:" + std::to_string(forRequest));
    return;
  }
  if (auto code = errorCode(response)) {
    observer->onError(makeError(ConnectionError::mapToOvError(*code)));
    return;
  }
  observer->onNext(Resource::fromResponse(forRequest, response));
  observer->onCompleted();
}

rx::Observable<rx::Unit> KelSocketClient::connect(std::string token) {
  std::weak_ptr<KelSocketClient> weak = weak_from_this();
  return rx::Observable<rx::Unit>::deferred([weak, token = std::move(token)] {
    auto self = weak.lock();
    if (!self) return rx::Observable<rx::Unit>::empty();
    // Only a client that was never used may be revived; a stopped one stays stopped.
    if (self->currentStatus().kind() == SocketState::Kind::newSocket) {
      self->stopByUser_.store(StopByUserState{});
    }
    return self->socketConnector_->connect().asObservable().flatMap([weak, token](rx::Unit) {
      auto client = weak.lock();
      if (!client) return rx::Observable<rx::Unit>::empty();
      return client->socketAuthenticator_->authenticate(token).asObservable();
    });
  });
}

void KelSocketClient::stop(SocketCloseCode reason) {
  KEL_LOG_DEBUG("Closing socket to: " + std::string(socket_->url().buffer()) +
                " | reason: " + platform::name(reason));
  stopByUser_.store(StopByUserState{true, reason});
  switch (currentStatus().kind()) {
    case SocketState::Kind::connected:
    case SocketState::Kind::authenticated:
    case SocketState::Kind::error:
      socket_->disconnect(reason);
      break;
    case SocketState::Kind::newSocket:
    case SocketState::Kind::disconnected:
      // No socket is open, so none will report the close: publish it all the same.
      socketEventHandler_->disconnect(reason);
      break;
  }
  requestStore_.completeObservers();
}

rx::Observable<Resource> KelSocketClient::send(AnyRequest request) {
  if (!isAuthenticated()) return rx::Observable<Resource>::error(noSocketClientError());

  std::weak_ptr<KelSocketClient> weak = weak_from_this();
  const auto timeout = request.timeout();
  auto sending = rx::Observable<Resource>::create(
      [weak, request = std::move(request)](rx::Observer<Resource> observer) {
        auto self = weak.lock();
        if (!self) {
          observer.onError(makeError(GenericError(GenericErrorType::underlying())));
          return rx::Disposable();
        }
        return self->registerAndSend(request, observer);
      });
  auto timingOut = rx::Observable<Resource>::error(requestTimeoutError())
                       .delaySubscription(timeout, socketScheduler_);
  return sending.amb(std::move(timingOut)).subscribeOn(socketScheduler_);
}

rx::Disposable KelSocketClient::registerAndSend(const AnyRequest& request,
                                                const rx::Observer<Resource>& observer) {
  auto frame = request.toMessage();
  if (!frame) {
    observer.onError(makeError(GenericError(GenericErrorType::encoding(request.describe()))));
    return rx::Disposable();
  }
  const std::int64_t id = request.requestID();
  const auto registration = requestStore_.registerRequest(id, observer);
  // A stop() between send() and here found nothing to complete: do what it would have done.
  if (stopByUser_.load().isStopped) {
    if (auto registered = requestStore_.removeRequest(id, registration)) registered->onCompleted();
    return rx::Disposable();
  }
  KEL_LOG_DEBUG("Sending request " + *frame + " from socketID: " + socketID_);
  socket_->send(std::move(*frame));

  // Answered and stopped requests were taken out already; only a time-out or a cancel leaves the
  // registration behind, and only then is its removal worth a trip to the socket queue.
  return rx::Disposable::create([weak = weak_from_this(), id, registration] {
    auto self = weak.lock();
    if (!self || !self->requestStore_.contains(id, registration)) return;
    self->socketScheduler_->schedule([weak, id, registration] {
      if (auto client = weak.lock()) client->requestStore_.removeRequest(id, registration);
    });
  });
}

}  // namespace kel
