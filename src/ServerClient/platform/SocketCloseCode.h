#pragma once

/// @file
/// Close codes of a WebSocket connection: the standard codes of RFC 6455 and the IANA registry,
/// and the library's own codes in the private-use range 4000-4999.
///
/// The enumeration's underlying type is the 16-bit wire code, so a code received from a peer that
/// is not listed here is still held exactly (socketCloseCodeFrom(4321) keeps 4321). The socket
/// layer treats every code other than normalClosure, otherExpectedClosure and goingBackground as a
/// lost connection, listed or not.

#include <cstdint>
#include <span>
#include <string>

namespace kel::platform {

/// The code of a WebSocket close: what disconnect() sends and what socketDidDisconnect reports.
/// Any 16-bit value may be held, listed or not (see the file's description).
enum class SocketCloseCode : std::uint16_t {
  invalid = 0,                       ///< no code at all; never on the wire
  normalClosure = 1000,              ///< the purpose of the connection was fulfilled (sign-out)
  goingAway = 1001,                  ///< an endpoint is going away (server restart, page left)
  protocolError = 1002,              ///< the peer broke the WebSocket protocol
  unsupportedData = 1003,            ///< a frame of a type the endpoint cannot accept
  noStatusReceived = 1005,           ///< the close frame had no code; never sent
  abnormalClosure = 1006,            ///< the connection ended without a close frame; never sent
  invalidFramePayloadData = 1007,    ///< a text message that is not valid UTF-8
  policyViolation = 1008,            ///< a message that violates the endpoint's policy
  messageTooBig = 1009,              ///< a message too big to process
  mandatoryExtensionMissing = 1010,  ///< the server did not negotiate a required extension
  internalServerError = 1011,        ///< the server met an unexpected condition
  tlsHandshakeFailure = 1015,        ///< the TLS handshake failed; never sent
  /// The library closed the socket on purpose for a reason other than the user's sign-out.
  otherExpectedClosure = 4000,
  /// The library closed the socket because the application went to the background.
  goingBackground = 4001,
};

/// Every listed code, in declaration order.
std::span<const SocketCloseCode> allSocketCloseCodes() noexcept;

/// The code for a wire value; unlisted values are kept as they are.
constexpr SocketCloseCode socketCloseCodeFrom(std::uint16_t wireCode) noexcept {
  return static_cast<SocketCloseCode>(wireCode);
}

/// The wire value of a code.
constexpr std::uint16_t wireCode(SocketCloseCode code) noexcept {
  return static_cast<std::uint16_t>(code);
}

/// True for the codes of the enumeration's list.
bool isListed(SocketCloseCode code) noexcept;

/// True when the code may be written into a close frame (RFC 6455, section 7.4): 1000-1003,
/// 1007-1011 and the registered and private ranges 3000-4999. invalid, noStatusReceived,
/// abnormalClosure and tlsHandshakeFailure are only ever reported, never sent.
bool canBeSent(SocketCloseCode code) noexcept;

/// For log lines: the case's name ("goingBackground"), or "closeCode(4321)" for an unlisted code.
std::string name(SocketCloseCode code);

}  // namespace kel::platform
