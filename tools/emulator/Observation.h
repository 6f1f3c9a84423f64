#pragma once

// What tests can see of a running emulator: its sockets, the frames they sent, and counters.
// All of it is returned as snapshots (copies), safe to keep and inspect on any thread.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "emulator/HttpRouter.h"
#include "emulator/ResourceRouter.h"

namespace kel::emulator {

/// How the emulator read a frame from a client.
enum class FrameKind {
  auth,       ///< "AUTH " followed by a token
  request,    ///< "2" followed by a JSON object with an integer "id" and text "path" and "method"
  malformed,  ///< anything else, binary frames included; ignored
};

std::string_view name(FrameKind kind) noexcept;

/// A frame as kept: only frames of authenticated sockets (and the "AUTH " frame that
/// authenticated one) are kept, up to Options::frameLogLimit frames and Options::frameLogBytes.
struct ReceivedFrame {
  SocketId socket = 0;
  FrameKind kind = FrameKind::malformed;
  bool binary = false;
  /// The payload, cut to Options::recordedPayloadBytes.
  std::string data;
  /// The payload's whole size.
  std::size_t size = 0;
  bool truncated() const noexcept { return data.size() < size; }
};

/// Who ended a connection.
enum class ClosedBy {
  nobody,   ///< still open
  client,   ///< the client's close frame; closeCode is its code
  server,   ///< the emulator's close frame (close fault, bad token, ended session, stop)
  dropped,  ///< the emulator reset the TCP connection on purpose
  network,  ///< the connection failed or ended without a close frame
};

std::string_view name(ClosedBy closedBy) noexcept;

struct SocketInfo {
  SocketId id = 0;
  bool open = true;
  bool tls = false;

  /// From the upgrade request: its target, the sub-protocol answered (the first one offered
  /// unless UpgradeAnswer::subprotocol says otherwise), every header field in order, the cookies.
  std::string path;
  std::string subprotocol;
  HeaderFields headers;
  std::string cookieHeader;
  HeaderFields cookies;
  std::string remoteAddress;
  /// The host name the client sent in its TLS handshake (SNI); empty without TLS or SNI.
  std::string serverName;

  bool authenticated = false;
  std::string userId;
  std::string sessionId;
  std::string sessionToken;
  /// The identifier sent in the authentication acknowledgement.
  std::string kapiId;

  std::uint64_t framesReceived = 0;
  std::uint64_t requestsReceived = 0;
  std::uint64_t malformedFrames = 0;
  std::uint64_t pongsReceived = 0;
  /// WebSocket ping control frames from the client (answered by the emulator unless deaf).
  std::uint64_t pingsReceived = 0;
  std::uint64_t responsesSent = 0;
  std::uint64_t eventsSent = 0;
  std::uint64_t pingsSent = 0;
  /// Requests whose answer a fault withheld.
  std::uint64_t responsesWithheld = 0;

  ClosedBy closedBy = ClosedBy::nobody;
  /// The code of the close frame (the client's or the emulator's), when there was one.
  std::optional<std::uint16_t> closeCode;
  std::string closeReason;
  /// Both close frames went across (whoever began): the peer answered the closing handshake.
  bool cleanClose = false;
};

struct Counters {
  std::uint64_t connectionsAccepted = 0;
  /// Connections reset or refused while the emulator was refusing connections.
  std::uint64_t connectionsRefused = 0;
  std::uint64_t upgrades = 0;
  /// Upgrades answered with UpgradeAnswer::rejectStatus instead of being accepted.
  std::uint64_t upgradesRejected = 0;
  /// Sockets closed for not authenticating within Options::authTimeout.
  std::uint64_t authTimeouts = 0;
  /// Accepts that failed, e.g. for want of file descriptors; the emulator retries.
  std::uint64_t acceptFailures = 0;
  std::uint64_t httpRequests = 0;
  std::uint64_t authSuccesses = 0;
  std::uint64_t authFailures = 0;
  std::uint64_t requests = 0;
  std::uint64_t malformedFrames = 0;
};

/// Which sockets an event or an injected frame goes to. Users and sessions reach only
/// authenticated sockets; a socket id reaches that socket in any state.
class Recipients {
 public:
  enum class Kind { all, user, session, socket };

  /// Every authenticated socket.
  static Recipients all() { return Recipients(Kind::all, {}, 0); }
  static Recipients user(std::string userId) {
    return Recipients(Kind::user, std::move(userId), 0);
  }
  /// The sockets authenticated with that session token.
  static Recipients session(std::string token) {
    return Recipients(Kind::session, std::move(token), 0);
  }
  static Recipients socket(SocketId id) { return Recipients(Kind::socket, {}, id); }

  Kind kind() const noexcept { return kind_; }
  const std::string& key() const noexcept { return key_; }
  SocketId socketId() const noexcept { return socket_; }

  bool includes(const SocketInfo& info) const;

 private:
  Recipients(Kind kind, std::string key, SocketId socket)
      : kind_(kind), key_(std::move(key)), socket_(socket) {}

  Kind kind_;
  std::string key_;
  SocketId socket_;
};

}  // namespace kel::emulator
