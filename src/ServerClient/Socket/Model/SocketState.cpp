#include "ServerClient/Socket/Model/SocketState.h"

#include <ostream>

#include "ServerClient/Common/SDKError.h"

namespace kel {

std::array<SocketState, 6> SocketState::allCases() {
  return {
      newSocket(),
      connected(),
      disconnected(SocketStateDisconnectedReason::expectedClose),
      disconnected(SocketStateDisconnectedReason::lostConnection),
      error(makeError(GenericError(GenericErrorType::underlying(), ""))),
      authenticated(),
  };
}

std::optional<SocketStateDisconnectedReason> SocketState::reason() const noexcept {
  if (kind_ != Kind::disconnected) return std::nullopt;
  return reason_;
}

bool SocketState::operator==(const SocketState& other) const noexcept {
  if (kind_ != other.kind_) return false;
  return kind_ != Kind::disconnected || reason_ == other.reason_;
}

std::string SocketState::name() const {
  switch (kind_) {
    case Kind::disconnected:
      return "disconnected(" + std::string(kel::name(reason_)) + ")";
    case Kind::error:
      return "error(" + describeError(error_) + ")";
    default:
      return std::string(kel::name(kind_));
  }
}

std::string_view name(SocketState::Kind kind) noexcept {
  switch (kind) {
    case SocketState::Kind::disconnected:
      return "disconnected";
    case SocketState::Kind::error:
      return "error";
    case SocketState::Kind::newSocket:
      return "new";
    case SocketState::Kind::connected:
      return "connected";
    case SocketState::Kind::authenticated:
      return "authenticated";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, const SocketState& state) {
  return out << state.name();
}

}  // namespace kel
