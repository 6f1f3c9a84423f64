#pragma once

#include <string>
#include <vector>

namespace kel::platform {

/// Public keys the server must present, on top of the usual verification: each pin is the
/// SHA-256 hash of a certificate's DER SubjectPublicKeyInfo, in base64, with or without a
/// "sha256/" prefix (as certificatePin() of TlsClientContext.h gives it). A connection is accepted
/// when any certificate of its verified chain (the server's own, an intermediate or the root) has a
/// pinned key, so pinning an authority's key accepts every certificate it signs.
///
/// Rotation: keep the key in use in `pins` and the next one in `backupPins` before the server
/// switches; both are accepted, and a connection accepted only through a backup pin is logged,
/// as the moment to move that pin into `pins`. No pins at all: no pinning.
///
/// A pin that is not the base64 text of 32 bytes makes the construction of the HTTP client, or of
/// a wss:// WebSocket, throw std::invalid_argument (see makeTlsClientContext()). A server whose
/// chain holds no pinned key fails the handshake: the WebSocket reports a CertificatePinMismatch,
/// the HTTP client an HTTPClientError of kind pinMismatch.
struct CertificatePins {
  std::vector<std::string> pins;        ///< The keys in use.
  std::vector<std::string> backupPins;  ///< The next keys, accepted as well during a rotation.

  /// True when no pin at all is set: the connection is then not pinned.
  bool empty() const noexcept { return pins.empty() && backupPins.empty(); }
};

}  // namespace kel::platform
