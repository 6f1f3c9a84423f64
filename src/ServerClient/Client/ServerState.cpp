#include "ServerClient/Client/ServerState.h"

#include <exception>
#include <utility>

namespace kel {

std::string_view name(KelServerState state) noexcept {
  switch (state) {
    case KelServerState::newState:
      return "new";
    case KelServerState::connected:
      return "connected";
    case KelServerState::connecting:
      return "connecting";
    case KelServerState::disconnected:
      return "disconnected";
    case KelServerState::disconnectedBackground:
      return "disconnectedBackground";
    case KelServerState::error:
      return "error";
  }
  return "unknown";
}

ServerState::ServerState() = default;

ServerState::~ServerState() {
  socketEvents_.dispose();
}

void ServerState::emit(KelServerState state) {
  emitter_.run([subject = currentState_, state] { subject.onNext(state); });
}

std::optional<AuthenticationData> ServerState::userSession() const {
  std::lock_guard lock(mutex_);
  return userSession_;
}

void ServerState::setUserSession(std::optional<AuthenticationData> session) {
  const bool present = session.has_value();
  {
    std::lock_guard lock(mutex_);
    userSession_ = std::move(session);
  }
  if (present) emit(KelServerState::connected);
}

void ServerState::setSocketEvents(std::optional<rx::Observable<SocketState>> states) {
  rx::Disposable previous;
  {
    std::lock_guard lock(mutex_);
    previous = std::exchange(socketEvents_, rx::Disposable());
  }
  previous.dispose();
  if (!states) return;
  std::weak_ptr<ServerState> weak = weak_from_this();
  auto subscription = states->subscribe([weak](const SocketState& state) {
    if (auto self = weak.lock()) self->handle(state);
  });
  std::lock_guard lock(mutex_);
  socketEvents_ = std::move(subscription);
}

void ServerState::handle(const SocketState& state) {
  // Decided and emitted in the emitter's order, so that a state the facade emits meanwhile
  // (connecting, connected) is read as the current one.
  emitter_.run([weak = weak_from_this(), state] {
    auto self = weak.lock();
    if (!self) return;
    KelServerState current;
    try {
      current = self->currentState_.value();
    } catch (...) {
      return;
    }
    using Kind = SocketState::Kind;
    using Reason = SocketStateDisconnectedReason;
    switch (state.kind()) {
      case Kind::disconnected:
        switch (state.reason().value_or(Reason::lostConnection)) {
          case Reason::expectedClose:
            self->currentState_.onNext(KelServerState::disconnected);
            if (!self->isLogout_.exchange(true)) self->needsNewSession_.onNext(rx::Unit{});
            break;
          case Reason::lostConnection:
            self->currentState_.onNext(KelServerState::disconnected);
            break;
          case Reason::background:
            self->currentState_.onNext(KelServerState::disconnectedBackground);
            break;
        }
        break;
      case Kind::error:
        self->currentState_.onNext(KelServerState::disconnected);
        break;
      case Kind::authenticated:
        self->isLogout_.store(false);
        if (self->userSession() && current == KelServerState::disconnected) {
          self->currentState_.onNext(KelServerState::connected);
        }
        break;
      case Kind::newSocket:
      case Kind::connected:
        break;
    }
  });
}

}  // namespace kel
