#pragma once

// The state of the socket as the socket layer sees it:
//
//   newSocket --open--> connected --acknowledged--> authenticated
//       |                   |                            |
//       +-------------------+------close-----------------+--> disconnected(reason)
//
// and from disconnected(lostConnection) back to connected when the reconnection succeeds.
// `error` carries a failure for whoever publishes one; the socket event handler never does.
//
// The state the design calls "new" is spelled newSocket here, as new is a C++ keyword; its name in
// log lines is still "new".

#include <array>
#include <exception>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "ServerClient/Socket/Model/SocketStateDisconnectedReason.h"

namespace kel {

/// The socket's state (see the top of this header): a kind, with a reason when disconnected and
/// a failure when error. A small value; SocketClient::socketConnectionEventChannel() emits it.
class SocketState {
 public:
  /// The cases, in the documented order: disconnected, error, new, connected, authenticated.
  enum class Kind { disconnected, error, newSocket, connected, authenticated };

  /// Closed, for `reason`.
  static SocketState disconnected(SocketStateDisconnectedReason reason) noexcept {
    return SocketState(Kind::disconnected, reason, nullptr);
  }
  /// Failed with `error` (may be null).
  static SocketState error(std::exception_ptr error) noexcept {
    return SocketState(Kind::error, {}, std::move(error));
  }
  /// Freshly built, never connected ("new").
  static SocketState newSocket() noexcept { return SocketState(Kind::newSocket, {}, nullptr); }
  /// The WebSocket is open but not yet authenticated.
  static SocketState connected() noexcept { return SocketState(Kind::connected, {}, nullptr); }
  /// The server accepted the token; requests may be sent.
  static SocketState authenticated() noexcept {
    return SocketState(Kind::authenticated, {}, nullptr);
  }

  /// One of each case, in this order: new, connected, disconnected(expectedClose),
  /// disconnected(lostConnection), error (a GenericError of kind underlying without an
  /// underlying error and with an empty description), authenticated. disconnected(background)
  /// is not among them.
  static std::array<SocketState, 6> allCases();

  /// Which case this is.
  Kind kind() const noexcept { return kind_; }
  /// The reason of a disconnected state; nothing for the other kinds.
  std::optional<SocketStateDisconnectedReason> reason() const noexcept;
  /// The failure an error state carries (may be null); null for the other kinds.
  const std::exception_ptr& errorPointer() const noexcept { return error_; }

  /// Same kind, and for disconnected the same reason. Two error states are equal whatever errors
  /// they carry: errors have no equality of their own, and consumers that skip repeated states
  /// care that the socket failed, not how.
  bool operator==(const SocketState& other) const noexcept;

  /// For log lines: "new", "connected", "authenticated", "disconnected(lostConnection)",
  /// "error(<the error's text>)".
  std::string name() const;

 private:
  SocketState(Kind kind, SocketStateDisconnectedReason reason, std::exception_ptr error) noexcept
      : kind_(kind), reason_(reason), error_(std::move(error)) {}

  Kind kind_;
  SocketStateDisconnectedReason reason_;  // meaningful only when disconnected
  std::exception_ptr error_;              // meaningful only for error
};

/// The kind's name, e.g. "new" for newSocket.
std::string_view name(SocketState::Kind kind) noexcept;

/// Writes `state.name()`.
std::ostream& operator<<(std::ostream& out, const SocketState& state);

}  // namespace kel
