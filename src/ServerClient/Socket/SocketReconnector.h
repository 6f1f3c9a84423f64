#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "ServerClient/Socket/Events/SocketEventHandler.h"
#include "ServerClient/Socket/SocketAuthenticator.h"
#include "ServerClient/Socket/SocketConnector.h"
#include "ServerClient/platform/Socket.h"
#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Scheduler.h"

namespace kel {

/// What the reconnector takes by injection; empty members take their defaults.
struct SocketReconnectorOptions {
  /// Runs the pulse; by default a serial queue labelled "SocketReconnector".
  rx::SchedulerPtr reconnectionScheduler{};
  /// Told of each connection attempt, on the reconnection scheduler, as it starts; none by
  /// default.
  std::function<void()> onAttempt{};
};

/// Brings the socket back after a lost connection: tries to connect every `reconnectionAttempt`
/// without limit, then authenticates again with the token it was launched with.
///
///            launchReconnection(token)
///   idle ----------------------------------> reconnecting
///    ^  ^                                      |  |  |
///    |  |  a connection attempt succeeds       |  |  | every period: connect(), each attempt
///    |  +---- (then authenticate(token)) ------+  |  | waiting up to 20 s, so attempts overlap
///    |                                            |  |
///    +-- a tick finds the user stopped the socket +  +-- a tick finds the socket connected, or
///        (attempts in flight are dropped)               the reconnector gone: the pulse ends,
///                                                       idle once the attempts in flight ended
///
/// The first tick comes one period after the launch. A launch while reconnecting does nothing.
/// Failed attempts are swallowed, except one refused for a certificate pin mismatch: that one is
/// logged as an error and ends the reconnection (idle), since no later attempt can pass. A failed
/// authentication is logged and otherwise dropped (the socket stays connected, and a later loss
/// starts a new reconnection).
///
/// Threads: launchReconnection() runs on the caller's thread (the socket client's state
/// subscription), the pulse and the attempts' continuations on the reconnection scheduler and
/// on whatever thread reports the socket's state. The reconnecting flag is one atomic word that
/// holds the number of the reconnection in progress (0 when idle): a launch claims it with a
/// compare-and-swap from 0, and a reconnection releases it only if it still holds its own
/// number, so a late release of a finished reconnection can never clear a newer one's flag.
class SocketReconnector : public std::enable_shared_from_this<SocketReconnector> {
 public:
  /// What the reconnector takes by injection.
  using Options = SocketReconnectorOptions;

  /// An idle reconnector for `socket` that connects with `socketConnector`, authenticates with
  /// `socketAuthenticator` and tries every `reconnectionAttempt`.
  static std::shared_ptr<SocketReconnector> create(
      std::shared_ptr<platform::Socket> socket, std::shared_ptr<SocketConnector> socketConnector,
      std::shared_ptr<SocketAuthenticator> socketAuthenticator, rx::Duration reconnectionAttempt,
      Options options = {});

  SocketReconnector(const SocketReconnector&) = delete;
  SocketReconnector& operator=(const SocketReconnector&) = delete;

  /// Asked at every tick whether the user stopped the socket; none means not stopped.
  StopByUser stopByUser() const;
  /// Installs what stopByUser() returns; the socket client installs its own.
  void setStopByUser(StopByUser stopByUser);

  /// Starts reconnecting unless a reconnection is already in progress; returns at once, true
  /// when it started one. Destroying the reconnector ends the reconnection in progress.
  bool launchReconnection(std::string token);
  /// Whether a reconnection is in progress.
  bool isReconnecting() const noexcept {
    return reconnection_.load(std::memory_order_acquire) != 0;
  }

  /// The period between two connection attempts.
  rx::Duration reconnectionAttempt() const noexcept { return reconnectionAttempt_; }

 private:
  struct Passkey {
    explicit Passkey() = default;
  };

 public:
  /// For std::make_shared inside create() only (the key is private); use create().
  SocketReconnector(Passkey, std::shared_ptr<platform::Socket> socket,
                    std::shared_ptr<SocketConnector> socketConnector,
                    std::shared_ptr<SocketAuthenticator> socketAuthenticator,
                    rx::Duration reconnectionAttempt, Options options);

 private:
  /// Ticks every period while the reconnector exists, the socket is not connected and the user
  /// has not stopped it.
  rx::Observable<std::int64_t> reconnectPulse() const;
  bool isStoppedByUser() const;
  /// Clears the flag if reconnection `number` still holds it.
  void finish(std::uint64_t number) noexcept;
  void authenticate(const std::string& token);

  mutable std::mutex mutex_;  // guards stopByUser_
  StopByUser stopByUser_;
  rx::SchedulerPtr reconnectionScheduler_;
  std::function<void()> onAttempt_;
  std::shared_ptr<SocketConnector> socketConnector_;
  std::shared_ptr<SocketAuthenticator> socketAuthenticator_;
  std::shared_ptr<platform::Socket> socket_;
  rx::Duration reconnectionAttempt_;
  rx::DisposeBag disposeBag_;  // the running reconnection and the authentications it started
  std::atomic<std::uint64_t> reconnection_{0};  // 0: idle; otherwise the running one's number
  std::atomic<std::uint64_t> launches_{0};
};

}  // namespace kel
