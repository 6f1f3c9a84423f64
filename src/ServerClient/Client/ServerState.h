#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>

#include "ServerClient/Auth/Model/AuthenticationData.h"
#include "ServerClient/Client/KelServerState.h"
#include "ServerClient/Socket/Model/SocketState.h"
#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Event.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/SerialEmitter.h"
#include "ServerClient/rx/Subjects.h"

namespace kel {

/// Turns the socket client's states into the facade's states, and raises the signal that the
/// server closed the session and a new sign-in is needed.
///
///   socket state                  facade state              also
///   disconnected(expectedClose)   disconnected              needsNewSession, unless isLogout;
///                                                           then isLogout = true (once per close)
///   disconnected(lostConnection)  disconnected
///   disconnected(background)      disconnectedBackground
///   error                         disconnected
///   authenticated                 connected, when a user    isLogout = false
///                                 session is present and
///                                 the state is disconnected
///   new, connected                -
///
/// Setting a present userSession emits connected.
///
/// Threads: socket states arrive on the socket's network thread, sessions on the sign-in chain's
/// thread, the facade's own states on the caller's. Every emission on currentState and
/// needsNewSession goes through one SerialEmitter, so subscribers see them one at a time, in
/// order. userSession is guarded by a mutex; isLogout is atomic. Made with std::make_shared: the
/// subscription to the socket's states holds it weakly.
class ServerState : public std::enable_shared_from_this<ServerState> {
 public:
  ServerState();
  ~ServerState();
  ServerState(const ServerState&) = delete;
  ServerState& operator=(const ServerState&) = delete;

  /// Emits each time a new sign-in is needed.
  rx::Observable<rx::Unit> needsNewSession() const { return needsNewSession_.asObservable(); }

  /// True while a close is expected because the user signs out: the next expectedClose then
  /// raises no needsNewSession. Cleared when the socket authenticates again.
  bool isLogout() const noexcept { return isLogout_.load(); }
  /// Marks (or unmarks) the coming close as the user's own; logout() sets it.
  void setIsLogout(bool value) noexcept { isLogout_.store(value); }

  /// Starts with newState. Emitting a value emits it even if it equals the current one.
  const rx::BehaviorSubject<KelServerState>& currentState() const noexcept { return currentState_; }
  /// Emits `state` on currentState, serialised with the socket's states.
  void emit(KelServerState state);

  /// The session that the last sign-in or restore set, or nothing after clearing.
  std::optional<AuthenticationData> userSession() const;
  /// A present value also emits connected.
  void setUserSession(std::optional<AuthenticationData> session);

  /// Follows `states` (the current socket client's), ending the previous subscription; none
  /// follows nothing.
  void setSocketEvents(std::optional<rx::Observable<SocketState>> states);

 private:
  void handle(const SocketState& state);

  std::atomic<bool> isLogout_ = false;
  rx::BehaviorSubject<KelServerState> currentState_{KelServerState::newState};
  rx::PublishSubject<rx::Unit> needsNewSession_;
  rx::SerialEmitter emitter_;

  mutable std::mutex mutex_;  // guards userSession_ and socketEvents_
  std::optional<AuthenticationData> userSession_;
  rx::Disposable socketEvents_;
};

}  // namespace kel
