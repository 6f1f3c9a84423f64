#pragma once

/// @file
/// What tests can see of a running emulator: its sockets, the frames they sent, and counters.
/// All of it is returned as snapshots (copies), safe to keep and inspect on any thread.

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

/// The kind's name: "auth", "request" or "malformed".
std::string_view name(FrameKind kind) noexcept;

/// A frame as kept: only frames of authenticated sockets (and the "AUTH " frame that
/// authenticated one) are kept, up to Options::frameLogLimit frames and Options::frameLogBytes.
struct ReceivedFrame {
  SocketId socket = 0;                    ///< the socket it came from (SocketInfo::id)
  FrameKind kind = FrameKind::malformed;  ///< how the emulator read it
  bool binary = false;                    ///< a binary frame rather than a text frame
  /// The payload, cut to Options::recordedPayloadBytes.
  std::string data;
  /// The payload's whole size.
  std::size_t size = 0;
  /// Whether data holds less than the whole payload.
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

/// The case's name: "nobody", "client", "server", "dropped" or "network".
std::string_view name(ClosedBy closedBy) noexcept;

/// One WebSocket connection as the emulator saw it when the snapshot was taken
/// (Emulator::sockets, Emulator::socket, Emulator::waitForSocket). The session token it holds is
/// a secret: compare it, never print it.
struct SocketInfo {
  SocketId id = 0;   ///< never reused within an emulator; ids grow in the order of upgrades
  bool open = true;  ///< false once closed (see closedBy)
  bool tls = false;  ///< served over TLS

  /// From the upgrade request: its target, the sub-protocol answered (the first one offered
  /// unless UpgradeAnswer::subprotocol says otherwise), every header field in order, the cookies.
  std::string path;
  std::string subprotocol;    ///< the sub-protocol answered; empty for none
  HeaderFields headers;       ///< the upgrade request's header fields, in order
  std::string cookieHeader;   ///< the upgrade's Cookie header as sent; empty without one
  HeaderFields cookies;       ///< the cookies of that header, name and value each
  std::string remoteAddress;  ///< the client's address and port
  /// The host name the client sent in its TLS handshake (SNI); empty without TLS or SNI.
  std::string serverName;

  bool authenticated = false;  ///< a valid "AUTH " frame bound the socket to a session
  std::string userId;          ///< the session's user; empty until authenticated
  std::string sessionId;       ///< the session's public identifier; empty until authenticated
  std::string sessionToken;    ///< the session's token (a secret); empty until authenticated
  /// The identifier sent in the authentication acknowledgement.
  std::string kapiId;

  std::uint64_t framesReceived = 0;    ///< text and binary frames, whatever their kind
  std::uint64_t requestsReceived = 0;  ///< well-formed request frames, answered 401 or not
  std::uint64_t malformedFrames = 0;   ///< frames read as FrameKind::malformed
  std::uint64_t pongsReceived = 0;     ///< WebSocket pong control frames from the client
  /// WebSocket ping control frames from the client (answered by the emulator unless deaf).
  std::uint64_t pingsReceived = 0;
  /// Responses queued, 401s and the answers of status or errorCode faults included.
  std::uint64_t responsesSent = 0;
  std::uint64_t eventsSent = 0;  ///< events queued by Emulator::pushEvent (the domains' too)
  std::uint64_t pingsSent = 0;   ///< "0" ping frames queued, periodic or sendPing
  /// Requests whose answer a fault withheld.
  std::uint64_t responsesWithheld = 0;

  ClosedBy closedBy = ClosedBy::nobody;  ///< who ended the connection; nobody while open
  /// The code of the close frame (the client's or the emulator's), when there was one.
  std::optional<std::uint16_t> closeCode;
  std::string closeReason;  ///< the close frame's reason, or why the connection ended
  /// Both close frames went across (whoever began): the peer answered the closing handshake.
  bool cleanClose = false;
};

/// The emulator-wide counters (Emulator::counters), from its making on; never reset.
struct Counters {
  std::uint64_t connectionsAccepted = 0;  ///< TCP connections served, HTTP and WebSocket alike
  /// Connections reset or refused while the emulator was refusing connections.
  std::uint64_t connectionsRefused = 0;
  std::uint64_t upgrades = 0;  ///< WebSocket upgrades accepted (sockets opened)
  /// Upgrades answered with UpgradeAnswer::rejectStatus instead of being accepted.
  std::uint64_t upgradesRejected = 0;
  /// Sockets closed for not authenticating within Options::authTimeout.
  std::uint64_t authTimeouts = 0;
  /// Accepts that failed, e.g. for want of file descriptors; the emulator retries.
  std::uint64_t acceptFailures = 0;
  std::uint64_t httpRequests = 0;     ///< plain HTTP requests served
  std::uint64_t authSuccesses = 0;    ///< "AUTH " frames that authenticated a socket
  std::uint64_t authFailures = 0;     ///< "AUTH " frames refused (the socket then closed)
  std::uint64_t requests = 0;         ///< well-formed request frames, from every socket
  std::uint64_t malformedFrames = 0;  ///< malformed frames, from every socket
};

/// Which sockets an event or an injected frame goes to. Users and sessions reach only
/// authenticated sockets; a socket id reaches that socket in any state.
class Recipients {
 public:
  /// Which factory made it.
  enum class Kind { all, user, session, socket };

  /// Every authenticated socket.
  static Recipients all() { return Recipients(Kind::all, {}, 0); }
  /// The sockets authenticated as that user.
  static Recipients user(std::string userId) {
    return Recipients(Kind::user, std::move(userId), 0);
  }
  /// The sockets authenticated with that session token.
  static Recipients session(std::string token) {
    return Recipients(Kind::session, std::move(token), 0);
  }
  /// The socket with that id, authenticated or not.
  static Recipients socket(SocketId id) { return Recipients(Kind::socket, {}, id); }

  /// Which factory made it.
  Kind kind() const noexcept { return kind_; }
  /// The user id or session token it names; empty for all and socket.
  const std::string& key() const noexcept { return key_; }
  /// The socket id it names; 0 unless kind is socket.
  SocketId socketId() const noexcept { return socket_; }

  /// Whether the socket `info` describes is among the recipients (open or not).
  bool includes(const SocketInfo& info) const;

 private:
  Recipients(Kind kind, std::string key, SocketId socket)
      : kind_(kind), key_(std::move(key)), socket_(socket) {}

  Kind kind_;
  std::string key_;
  SocketId socket_;
};

}  // namespace kel::emulator
