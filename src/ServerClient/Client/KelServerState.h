#pragma once

#include <array>
#include <string_view>

namespace kel {

/// The facade's connection state, as the application sees it.
enum class KelServerState {
  newState,                ///< nothing has happened yet ("new": a C++ keyword)
  connected,               ///< a session is established and the socket is usable
  connecting,              ///< a sign-in or restore is building a new socket
  disconnected,            ///< the socket closed or failed
  disconnectedBackground,  ///< the socket was closed because the application went to the background
  error,                   ///< the last sign-in or restore failed
};

inline constexpr std::array<KelServerState, 6> kAllKelServerStates = {
    KelServerState::newState,
    KelServerState::connected,
    KelServerState::connecting,
    KelServerState::disconnected,
    KelServerState::disconnectedBackground,
    KelServerState::error};

/// The case's name, "new" for newState.
std::string_view name(KelServerState state) noexcept;

}  // namespace kel
