#include "ServerClient/Socket/Client/KelSocketClient.h"

#include <atomic>
#include <chrono>
#include <optional>
#include <utility>

#include "ServerClient/Client/KelMetrics.h"
#include "ServerClient/Common/Json.h"
#include "ServerClient/Common/Random.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Common/SafeText.h"
#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/Socket/Client/detail/MeteredSocket.h"
#include "ServerClient/Socket/Model/ErrorCode.h"
#include "ServerClient/platform/SocketExecutor.h"
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

// Frames carry tokens and whatever the server sends: logged without secrets, cut short.
std::string dumpForLog(const nlohmann::json& json) {
  return displayText(dumpJson(json).value_or("<unprintable>"));
}

// The "KelSocket" queue on the socket's own network thread, where frames are written and
// responses read: a send is registered, framed and written after one hand-over from its caller.
// One thread runs that executor, so work runs one item at a time, in the order posted.
class SocketThreadScheduler final : public rx::Scheduler {
 public:
  explicit SocketThreadScheduler(boost::asio::any_io_executor executor)
      : executor_(std::move(executor)) {}

  rx::TimePoint now() const override { return std::chrono::steady_clock::now(); }
  rx::Disposable schedule(std::function<void()> action) override {
    return rx::detail::postCancellable(executor_, std::move(action));
  }
  rx::Disposable scheduleAfter(rx::Duration due, std::function<void()> action) override {
    return rx::detail::startTimer(executor_, due, std::move(action));
  }

 private:
  const boost::asio::any_io_executor executor_;
};

// The request's frame under another identifier.
std::optional<std::string> renumberedFrame(const AnyRequest& request, std::int64_t id) noexcept {
  try {
    const auto wireObject = request.toDictionary();
    return detail::requestFrame(id, wireObject.at("path").get<std::string>(),
                                wireObject.at("method").get<std::string>(), &wireObject.at("body"));
  } catch (...) {
    return std::nullopt;
  }
}

rx::SchedulerPtr defaultSocketScheduler(platform::Socket& socket) {
  if (auto* thread = dynamic_cast<platform::SocketExecutor*>(&socket)) {
    if (auto executor = thread->executor()) {
      return std::make_shared<SocketThreadScheduler>(std::move(executor));
    }
  }
  return std::make_shared<rx::SerialDispatchQueueScheduler>("KelSocket");
}

}  // namespace

std::string SocketFailure::description() const {
  if (!closeCode) return text;
  return "the socket was closed with " + std::to_string(platform::wireCode(*closeCode)) + " (" +
         (text.empty() ? platform::name(*closeCode) : text) + ")";
}

std::string describeErrorWithSocketFailure(const std::exception_ptr& error,
                                           const std::shared_ptr<SocketClient>& client) {
  auto text = describeError(error);
  const auto* connection = errorAs<ConnectionError>(error);
  if (!client || !connection || connection->type() != ConnectionErrorType::timeout ||
      connection->code() != -1) {
    return text;
  }
  if (auto failure = client->lastFailure()) text += "; " + failure->description();
  return text;
}

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
  if (options.metrics) {
    socket = detail::meteredSocket(
        std::move(socket),
        std::dynamic_pointer_cast<platform::WebSocketConnectionDelegate>(socketEventHandler),
        options.metrics);
  }
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

  KEL_LOG_DEBUG(
      "init(socket:socketEventHandler:serverEventHandler:reconnectAuth:reconnectionAttempt:)",
      "Connecting to " + redactSecrets(client->socket_->url().buffer()));
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
      socketScheduler_(options.socketScheduler ? std::move(options.socketScheduler)
                                               : defaultSocketScheduler(*socket_)),
      metrics_(std::move(options.metrics)) {
  socketConnector_ = std::make_shared<SocketConnector>(
      socket_, socketEventHandler_, kConnectionTimeout,
      SocketConnector::Options{std::move(options.connectionScheduler),
                               std::move(options.cookieHeaders)});
  socketAuthenticator_ = std::make_shared<SocketAuthenticator>(
      socket_, socketEventHandler_, kConnectionTimeout,
      SocketAuthenticator::Options{std::move(options.authenticationScheduler)});
  std::function<void()> onAttempt;
  if (metrics_) onAttempt = [metrics = metrics_] { metrics->reconnectionAttempted(); };
  socketReconnector_ = SocketReconnector::create(
      socket_, socketConnector_, socketAuthenticator_, reconnectionAttempt,
      SocketReconnector::Options{std::move(options.reconnectionScheduler), std::move(onAttempt)});
}

KelSocketClient::~KelSocketClient() {
  // The subscriptions go first, so that nothing reaches a client half torn down.
  disposeBag_.dispose();
  // The timer lives on the socket's thread, which ends with the socket.
  deadlineTimer_.dispose();
  // A client dropped without stop() still ends what it was asked, as stop() would.
  requestStore_.completeObservers();
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
        if (self->metrics_) self->recordState(state);
        self->setCurrentStatus(state);
        if (auto reason = state.reason()) self->onDisconnectedEvent(*reason);
      }));

  disposeBag_.insert(
      socketEventHandler_->messageEventPublisher().subscribe([weak](const SocketMessage& message) {
        auto self = weak.lock();
        if (!self) return;
        if (const auto* response = message.asResponse()) {
          KEL_LOG_DEBUG("subscribeToSocketEvents()", "Response received " +
                                                         dumpForLog(response->json) +
                                                         " to socketID: " + self->socketID_);
          self->returnResponse(response->json, response->id);
        } else if (const auto* event = message.asEvent()) {
          if (self->eventHandler_) self->eventHandler_->handleShared(event->json);
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
  auto token = reconnectAuth_();
  if (token && socketReconnector_->launchReconnection(std::move(*token)) && metrics_) {
    metrics_->reconnectionStarted(reason);
  }
}

void KelSocketClient::recordState(const SocketState& state) {
  const auto previous = currentKind_.load(std::memory_order_relaxed);
  switch (state.kind()) {
    case SocketState::Kind::connected:
      openedAt_ = metrics_->now();
      break;
    case SocketState::Kind::authenticated:
      if (openedAt_) metrics_->authenticated(metrics_->now() - *openedAt_);
      openedAt_.reset();
      break;
    case SocketState::Kind::disconnected:
      if (previous == SocketState::Kind::connected ||
          previous == SocketState::Kind::authenticated) {
        metrics_->connectionEnded(*state.reason());
      }
      openedAt_.reset();
      break;
    case SocketState::Kind::newSocket:
    case SocketState::Kind::error:
      break;
  }
}

void KelSocketClient::returnResponse(const nlohmann::json& response, std::int64_t forRequest) {
  auto observer = requestStore_.removeRequest(forRequest);
  if (!observer) {
    KEL_LOG_ERROR("returnResponse(_:forRequest:)",
                  "No request found for response:" + std::to_string(forRequest));
    return;
  }
  // Answered to the last: the deadline timer would only wake an idle client for nothing. Checked
  // again under the deadlines' lock, since a send may be registering meanwhile.
  if (requestStore_.count() == 0) {
    std::lock_guard lock(deadlineMutex_);
    if (requestStore_.count() == 0) clearDeadlines();
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
  KEL_LOG_DEBUG("stop(reason:)", "Closing socket to: " + redactSecrets(socket_->url().buffer()) +
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
  std::lock_guard lock(deadlineMutex_);
  clearDeadlines();
}

void KelSocketClient::addDeadline(std::chrono::seconds timeout, const Deadline& deadline) {
  std::lock_guard lock(deadlineMutex_);
  auto& queue = deadlines_[timeout];
  // Most requests are answered long before their deadline: take those off the front as new ones
  // come, two for one, so that the queue stays about as long as the requests pending.
  for (int i = 0; i < 2 && !queue.empty() &&
                  !requestStore_.contains(queue.front().id, queue.front().registration);
       ++i) {
    queue.pop_front();
  }
  queue.push_back(deadline);
  if (!deadlineTimerAt_ || deadline.at < *deadlineTimerAt_) armDeadlineTimer(deadline.at);
}

void KelSocketClient::armDeadlineTimer(rx::TimePoint at) {
  deadlineTimer_.dispose();
  deadlineTimerAt_ = at;
  deadlineTimer_ =
      socketScheduler_->scheduleAfter(at - socketScheduler_->now(), [weak = weak_from_this()] {
        if (auto self = weak.lock()) self->expireDeadlines();
      });
}

void KelSocketClient::clearDeadlines() {
  deadlines_.clear();
  deadlineTimer_.dispose();
  deadlineTimer_ = {};
  deadlineTimerAt_.reset();
}

void KelSocketClient::expireDeadlines() {
  std::vector<RequestStore<std::int64_t>::Observer> expired;
  {
    std::lock_guard lock(deadlineMutex_);
    deadlineTimer_ = {};
    deadlineTimerAt_.reset();
    const auto now = socketScheduler_->now();
    std::optional<rx::TimePoint> next;
    for (auto& [timeout, queue] : deadlines_) {
      while (!queue.empty()) {
        const auto& front = queue.front();
        if (front.at <= now) {
          if (auto observer = requestStore_.removeRequest(front.id, front.registration)) {
            expired.push_back(std::move(*observer));
          }
        } else if (requestStore_.contains(front.id, front.registration)) {
          if (!next || front.at < *next) next = front.at;
          break;
        }
        queue.pop_front();
      }
    }
    std::erase_if(deadlines_, [](const auto& entry) { return entry.second.empty(); });
    if (next) armDeadlineTimer(*next);
  }
  for (auto& observer : expired) observer.onError(requestTimeoutError());
}

// send() is the hot path, so its stream is one object per subscription rather than the
// composition it stands for,
//
//   amb(register-and-write, error(timeout).delaySubscription(timeout, socket scheduler))
//       .subscribeOn(socket scheduler)
//
// which costs some twenty allocations and as many atomic reference counts per request. The
// behaviour is the same: the subscription is scheduled on the socket queue; there the frame is
// made, the request registered with its deadline and written; the first of response, failure,
// stop and time-out decides, the rest find the request settled; disposing unregisters the
// request on the socket queue. Rather than a timer per request, the client's one deadline timer
// times out every registration whose deadline has passed (a request taken out of the store by
// its response or its disposal no longer has one).
//
//   scheduled --run on the socket queue--> registered --a value--> answering
//       |                                   |      \                  |
//       |                                   |       +-- failure, stop, time-out --+
//       |                                   |                          |          |
//       +---------- dispose ----------------+---------- completion ----+--------> done
//
// Exactly one outcome reaches the caller: each path moves `state_` out of `registered` with a
// compare-and-swap and only the winner delivers. A response and stop() reach the request through
// the store, where it is its own observer, and so does its time-out. A request whose identifier
// is pending already is sent under a fresh one.
class KelSocketClient::PendingRequest final : public rx::detail::ObserverBase<Resource>,
                                              public rx::detail::DisposableState,
                                              public std::enable_shared_from_this<PendingRequest> {
 public:
  PendingRequest(std::weak_ptr<KelSocketClient> client, AnyRequest request,
                 rx::Observer<Resource> down, std::shared_ptr<KelMetricsRecorder> metrics)
      : client_(std::move(client)),
        request_(std::move(request)),
        id_(request_->requestID()),
        timeout_(request_->timeout()),
        metrics_(std::move(metrics)),
        down_(std::move(down)) {}

  ~PendingRequest() override {
    // Left in the store of a client that went away without settling it.
    if (metrics_ && state_.load() == State::registered) metrics_->requestCancelled();
  }

  void schedule(rx::Scheduler& scheduler) {
    auto task = scheduler.schedule([self = shared_from_this()] { self->run(); });
    std::unique_lock lock(mutex_);
    if (isDisposed()) {
      lock.unlock();
      return task.dispose();
    }
    task_ = std::move(task);
  }

  // A response: onNext then onCompleted, or onError. stop(): onCompleted.
  void onNext(const Resource& resource) override {
    if (!advance(State::registered, State::answering)) return;
    if (metrics_) metrics_->requestAnswered(registeredAt_);
    if (auto down = downstream()) down.onNext(resource);
  }
  void onCompleted() override {
    if (!advance(State::answering, State::done)) {
      if (!advance(State::registered, State::done)) return;
      if (metrics_) metrics_->requestStopped();
    }
    terminate().onCompleted();
  }
  void onError(std::exception_ptr error) override {
    if (!advance(State::registered, State::done)) return;
    if (metrics_) {
      if (error == requestTimeoutError()) {
        metrics_->requestTimedOut();
      } else {
        metrics_->requestFailed(error, registeredAt_);
      }
    }
    terminate().onError(std::move(error));
  }
  bool isStopped() const noexcept override { return state_.load() == State::done; }

 protected:
  void onDispose() noexcept override {
    const State previous = state_.exchange(State::done);
    auto down = terminate();
    // After terminate(), which waits for a registration under way to be counted.
    if (previous == State::registered && metrics_) metrics_->requestCancelled();
    if (previous != State::registered && previous != State::answering) return;
    // Still registered unless a response or stop() took it out: only then is the removal worth
    // a trip to the socket queue.
    auto client = client_.lock();
    if (!client || !client->requestStore_.contains(id_, registration_)) return;
    try {
      client->socketScheduler_->schedule([weak = client_, id = id_, registration = registration_] {
        if (auto owner = weak.lock()) owner->requestStore_.removeRequest(id, registration);
      });
    } catch (...) {
      client->requestStore_.removeRequest(id_, registration_);  // the queue is going away
    }
  }

 private:
  enum class State : std::uint8_t { scheduled, registered, answering, done };

  // On the socket queue.
  void run() {
    auto client = client_.lock();
    if (!client) {
      return fail(makeError(GenericError(GenericErrorType::underlying())));
    }
    auto frame = request_->toMessage();
    if (!frame) {
      return fail(makeError(GenericError(GenericErrorType::encoding(request_->describe()))));
    }
    const auto drawnID = id_;
    const auto registeredAt = metrics_ ? metrics_->now() : rx::TimePoint{};
    {
      // Registering and a concurrent dispose() are ordered by the lock: either the disposal came
      // first and nothing is registered, or it sees the registration and takes it out again.
      std::lock_guard lock(mutex_);
      registeredAt_ = registeredAt;
      if (!advance(State::scheduled, State::registered)) return;
      if (metrics_) metrics_->requestRegistered();
      // Two pending requests never share an identifier, or the later would take the earlier's
      // response: while the identifier is pending, draw another (with 10,000 pending, one draw in
      // some 200,000 meets a pending one).
      rx::Observer<Resource> self(shared_from_this());
      auto registration = client->requestStore_.registerRequest(id_, self);
      while (!registration) {
        id_ = makeRequestID();
        registration = client->requestStore_.registerRequest(id_, self);
      }
      registration_ = *registration;
    }
    if (id_ != drawnID) frame = renumberedFrame(*request_, id_);
    if (!frame) {  // only the number changed, so this cannot fail; were it to, say so
      auto error = makeError(GenericError(GenericErrorType::encoding(request_->describe())));
      if (auto self = client->requestStore_.removeRequest(id_, registration_)) {
        self->onError(std::move(error));
      }
      return;
    }
    request_.reset();  // the frame is all that is left to send
    // A stop() since send() swept the store before this registration: do what it would have.
    if (client->stopByUser_.load().isStopped) {
      if (auto self = client->requestStore_.removeRequest(id_, registration_)) self->onCompleted();
      return;
    }
    client->addDeadline(timeout_, {client->socketScheduler_->now() + timeout_, id_, registration_});
    KEL_LOG_DEBUG("send(request:)", "Sending request " + displayText(*frame) +
                                        " from socketID: " + client->socketID_);
    if (metrics_) metrics_->requestWritten();
    client->socket_->send(std::move(*frame));
  }

  void fail(std::exception_ptr error) {
    if (!advance(State::scheduled, State::done)) return;
    if (metrics_) metrics_->requestRefused(error);
    terminate().onError(std::move(error));
  }

  bool advance(State from, State to) noexcept { return state_.compare_exchange_strong(from, to); }

  rx::Observer<Resource> downstream() {
    std::lock_guard lock(mutex_);
    return down_;
  }

  /// Lets go of the caller and of the pending work; returns the caller to deliver the outcome to.
  rx::Observer<Resource> terminate() noexcept {
    rx::Observer<Resource> down;
    rx::Disposable task;
    {
      std::lock_guard lock(mutex_);
      down = std::exchange(down_, {});
      task = std::exchange(task_, {});
    }
    task.dispose();
    return down;
  }

  const std::weak_ptr<KelSocketClient> client_;
  std::optional<AnyRequest> request_;  // touched only by run()
  std::int64_t id_;                    // drawn again in run() while pending, under mutex_
  const std::chrono::seconds timeout_;
  const std::shared_ptr<KelMetricsRecorder> metrics_;  // null: nothing is counted
  rx::TimePoint registeredAt_{};                       // written in run() under mutex_
  std::atomic<State> state_{State::scheduled};
  RequestStore<std::int64_t>::Registration registration_ = 0;  // written in run() under mutex_
  std::mutex mutex_;  // guards down_, task_, and orders registering against disposal
  rx::Observer<Resource> down_;
  rx::Disposable task_;  // the scheduled run()
};

class KelSocketClient::SendSource final : public rx::detail::Source<Resource> {
 public:
  SendSource(std::weak_ptr<KelSocketClient> client, AnyRequest request, rx::SchedulerPtr scheduler,
             std::shared_ptr<KelMetricsRecorder> metrics)
      : client_(std::move(client)),
        request_(std::move(request)),
        scheduler_(std::move(scheduler)),
        metrics_(std::move(metrics)) {}

  rx::Disposable subscribe(rx::Observer<Resource> observer) const override {
    auto pending =
        std::make_shared<PendingRequest>(client_, request_, std::move(observer), metrics_);
    pending->schedule(*scheduler_);
    return rx::Disposable(std::move(pending));
  }

 private:
  std::weak_ptr<KelSocketClient> client_;
  AnyRequest request_;
  rx::SchedulerPtr scheduler_;
  std::shared_ptr<KelMetricsRecorder> metrics_;
};

rx::Observable<Resource> KelSocketClient::send(AnyRequest request) {
  if (!isAuthenticated()) {
    if (metrics_) metrics_->requestRefused(noSocketClientError());
    return rx::Observable<Resource>::error(noSocketClientError());
  }
  return rx::Observable<Resource>(std::make_shared<const SendSource>(
      weak_from_this(), std::move(request), socketScheduler_, metrics_));
}

}  // namespace kel
