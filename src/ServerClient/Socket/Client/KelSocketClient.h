#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ServerClient/Socket/Client/RequestStore.h"
#include "ServerClient/Socket/Client/SocketClient.h"
#include "ServerClient/Socket/Events/ServerEventHandler.h"
#include "ServerClient/Socket/Events/SocketEventHandler.h"
#include "ServerClient/Socket/SocketAuthenticator.h"
#include "ServerClient/Socket/SocketConnector.h"
#include "ServerClient/Socket/SocketReconnector.h"
#include "ServerClient/platform/ApplicationLifecycle.h"
#include "ServerClient/platform/OvNetworkManager.h"
#include "ServerClient/platform/Socket.h"
#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Scheduler.h"

namespace kel {

class KelMetricsRecorder;

/// What the socket client takes by injection; empty members take their defaults.
struct KelSocketClientOptions {
  /// "KelSocket" by default: a queue on the socket's own thread when the socket has one
  /// (platform::Socket::executor()), otherwise a queue on the shared pool.
  rx::SchedulerPtr socketScheduler{};
  /// The connector's, authenticator's and reconnector's own queues by default.
  rx::SchedulerPtr connectionScheduler{};
  /// The authenticator's time-out; its own serial queue by default.
  rx::SchedulerPtr authenticationScheduler{};
  /// The reconnector's pulse; its own serial queue by default.
  rx::SchedulerPtr reconnectionScheduler{};
  /// The cookie storage the connector reads; none by default.
  CookieHeaderProvider cookieHeaders{};
  /// Reachability; by default a manager that always reports the network reachable.
  std::shared_ptr<platform::OvNetworkManager> networkManager{};
  /// Foreground notifications; ApplicationLifecycle::shared() by default.
  std::shared_ptr<platform::ApplicationLifecycle> applicationLifecycle{};
  /// Where the client counts its requests, connections and traffic; none by default (nothing is
  /// counted). A facade passes its own to every client it makes, so its counts span them all.
  std::shared_ptr<KelMetricsRecorder> metrics{};
};

/// The one socket of a session: sends requests and matches their responses, keeps the socket's
/// state, reconnects after a lost connection, hands server events to the event decoder and
/// answers the return to the foreground and network changes with a pong.
///
///   new --connect(token)--> connected --AUTH acknowledged--> authenticated  (send() accepted)
///                            ^   |                                  |
///                            |   |          connection lost         |
///                            |   +---------------+------------------+
///                            |                   v
///                            +-- reconnector -- disconnected(lostConnection)
///                                (connect() every period, then authenticate(token))
///
///   A close for the background or an expected close ends in disconnected(background) or
///   disconnected(expectedClose); nothing reconnects from there.
///
///   any state --stop(reason)--> disconnected(reason's kind), stopped for good: pending requests
///   complete without an element, a socket that opens is closed at once, the reconnector gives
///   up at its next tick, and a later connect(token) times out. A new session needs a new client.
///
/// Threads
/// - "KelSocket" (the socket scheduler) runs each send's subscription: framing, registering,
///   writing; the request time-outs; and the unregistration of requests cancelled. By default it
///   runs on the socket's network thread, so a send crosses threads once, and its response is
///   delivered on that same thread, with no further hop.
/// - The pending requests live in a RequestStore, a mutex-guarded map ("RequestStore").
/// - Time-outs: each registration notes its deadline, and one timer per client, on the socket
///   scheduler, is armed for the nearest one (deadlineMutex_).
/// - Responses and events are handled on the thread that reports the socket's messages, and a
///   response reaches its caller there.
/// - currentStatus is written by the state subscription only (the event handler publishes one
///   state at a time) and read from any thread: the full state sits behind statusMutex_, and its
///   kind is mirrored in an atomic that send() reads without a lock.
/// - stopByUser is one atomic word.
class KelSocketClient final : public SocketClient,
                              public std::enable_shared_from_this<KelSocketClient> {
 public:
  /// Yields the current session token, or nothing.
  using ReconnectAuth = std::function<std::optional<std::string>()>;

  /// What the client takes by injection.
  using Options = KelSocketClientOptions;

  /// A client in state new for `socket`, whose callbacks `socketEventHandler` turns into states
  /// and messages; server events go to `serverEventHandler`, and after a lost connection the
  /// client reconnects every `reconnectionAttempt` with the token `reconnectAuth` yields (none:
  /// no reconnection). Nothing is opened until connect() is subscribed.
  static std::shared_ptr<KelSocketClient> create(
      std::shared_ptr<platform::Socket> socket,
      std::shared_ptr<SocketEventHandler> socketEventHandler,
      std::shared_ptr<ServerEventHandler> serverEventHandler, ReconnectAuth reconnectAuth,
      rx::Duration reconnectionAttempt, Options options = {});

  /// Ends the client's subscriptions and its time-out timer. Requests still pending then get no
  /// outcome at all: call stop() first, which completes them and closes the socket.
  ~KelSocketClient() override;
  KelSocketClient(const KelSocketClient&) = delete;
  KelSocketClient& operator=(const KelSocketClient&) = delete;

  // SocketClient
  SocketState currentStatus() const override;
  rx::Observable<SocketState> socketConnectionEventChannel() const override;
  rx::Observable<rx::Unit> connect(std::string token) override;
  void stop(platform::SocketCloseCode reason) override;
  rx::Observable<Resource> send(AnyRequest request) override;
  std::optional<SocketFailure> lastFailure() const override {
    return socketEventHandler_->lastFailure();
  }

  /// A fresh UUID per client, for log lines.
  const std::string& socketID() const noexcept { return socketID_; }
  /// Whether stop() was called, and with which code.
  StopByUserState stopByUser() const noexcept { return stopByUser_.load(); }
  /// The identifiers of the requests waiting for their response.
  std::vector<std::int64_t> pendingRequests() const { return requestStore_.all(); }
  /// How many requests wait for their response.
  std::size_t pendingCount() const { return requestStore_.count(); }
  /// The WebSocket the client drives.
  const std::shared_ptr<platform::Socket>& socket() const noexcept { return socket_; }
  /// The part that brings the socket back after a lost connection.
  const std::shared_ptr<SocketReconnector>& socketReconnector() const noexcept {
    return socketReconnector_;
  }

 private:
  struct Passkey {
    explicit Passkey() = default;
  };

 public:
  /// For std::make_shared inside create() only (the key is private); use create().
  KelSocketClient(Passkey, std::shared_ptr<platform::Socket> socket,
                  std::shared_ptr<SocketEventHandler> socketEventHandler,
                  std::shared_ptr<ServerEventHandler> serverEventHandler,
                  ReconnectAuth reconnectAuth, rx::Duration reconnectionAttempt, Options options);

 private:
  void subscribeToSocketEvents();
  void setCurrentStatus(const SocketState& state);
  void onDisconnectedEvent(SocketStateDisconnectedReason reason);
  // Counts a state change into metrics_, before currentStatus_ takes it.
  void recordState(const SocketState& state);
  void returnResponse(const nlohmann::json& response, std::int64_t forRequest);
  bool isAuthenticated() const noexcept {
    return currentKind_.load(std::memory_order_acquire) == SocketState::Kind::authenticated;
  }
  class SendSource;
  class PendingRequest;

  using Registration = RequestStore<std::int64_t>::Registration;
  // When a registration times out.
  struct Deadline {
    rx::TimePoint at;
    std::int64_t id;
    Registration registration;
  };
  // Notes the deadline of a registration just made; on the socket queue.
  void addDeadline(std::chrono::seconds timeout, const Deadline& deadline);
  // Times out what is due and arms the timer for what is left; on the socket queue.
  void expireDeadlines();
  // Under deadlineMutex_.
  void armDeadlineTimer(rx::TimePoint at);
  void clearDeadlines();

  mutable std::mutex statusMutex_;  // guards currentStatus_
  SocketState currentStatus_ = SocketState::newSocket();
  std::atomic<SocketState::Kind> currentKind_{SocketState::Kind::newSocket};
  ReconnectAuth reconnectAuth_;
  std::shared_ptr<ServerEventHandler> eventHandler_;
  const std::string socketID_;
  std::shared_ptr<platform::Socket> socket_;
  RequestStore<std::int64_t> requestStore_;
  std::shared_ptr<SocketEventHandler> socketEventHandler_;
  std::shared_ptr<SocketConnector> socketConnector_;
  std::shared_ptr<SocketAuthenticator> socketAuthenticator_;
  std::shared_ptr<SocketReconnector> socketReconnector_;
  std::shared_ptr<platform::OvNetworkManager> networkManager_;
  std::shared_ptr<platform::ApplicationLifecycle> applicationLifecycle_;
  rx::SchedulerPtr socketScheduler_;
  std::mutex deadlineMutex_;  // guards the three members below
  // Per time-out, in the order of registration, which is the order of their deadlines. Entries of
  // requests settled since stay until they reach the front.
  std::map<std::chrono::seconds, std::deque<Deadline>> deadlines_;
  rx::Disposable deadlineTimer_;
  std::optional<rx::TimePoint> deadlineTimerAt_;
  std::atomic<StopByUserState> stopByUser_{StopByUserState{}};
  std::shared_ptr<KelMetricsRecorder> metrics_;  // null: nothing is counted
  std::optional<rx::TimePoint> openedAt_;        // touched by the state subscription only
  rx::DisposeBag disposeBag_;
};

}  // namespace kel
