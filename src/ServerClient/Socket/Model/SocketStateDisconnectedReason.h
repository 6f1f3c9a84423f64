#pragma once

#include <string_view>

namespace kel {

/// Why the socket is disconnected.
enum class SocketStateDisconnectedReason {
  expectedClose,   ///< closed on purpose: by the user, or normally by the server
  lostConnection,  ///< any other close; the socket client reconnects
  background,      ///< closed because the application went to the background
};

/// The case's name, e.g. "lostConnection".
std::string_view name(SocketStateDisconnectedReason reason) noexcept;

}  // namespace kel
