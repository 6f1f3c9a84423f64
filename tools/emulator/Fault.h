#pragma once

/// @file
/// Fault injection: what the emulator can do wrong on purpose, so that a client's handling of a
/// misbehaving server can be tested.
///
/// Two families:
/// - Malformed frames, sent on demand (Emulator::sendMalformed) or instead of a response
///   (Fault::malformedResponse).
/// - Request faults (Fault), armed for the next N requests or for every request that matches a
///   filter (Emulator::faultNextRequests, Emulator::faultAllRequests). They act when a request
///   arrives, before or after its handler:
///   - delay, withhold: the handler runs; its answer is held back, or never sent;
///   - status, errorCode: the handler does not run; the request is answered with the failure;
///   - dropSocket: the handler does not run; the TCP connection is reset (no close frame);
///   - closeSocket: the handler does not run; the socket is closed with the code;
///   - malformedResponse: the handler does not run; a malformed frame goes out instead.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "emulator/ResourceRouter.h"

namespace kel::emulator {

/// Frames that a client must survive. With a request id (as a response stand-in) the frame
/// carries that id where it can; without one it poses as an event.
enum class Malformed {
  notJson,      ///< "3" followed by a truncated JSON object
  bareThree,    ///< "3" alone
  list,         ///< "3[]": a list where an object belongs
  scalar,       ///< "3" followed by a bare number
  stringId,     ///< a response whose "id" is a JSON string, which makes it an event
  binary,       ///< a binary frame holding a well-formed response or event
  invalidUtf8,  ///< a text frame that is not UTF-8 (a WebSocket protocol violation)
  huge,         ///< a well-formed response or event of hugeFrameBytes bytes
  empty,        ///< an empty text frame
};

/// Size of Malformed::huge unless told otherwise: beyond the 16 MiB that WebSocket libraries
/// commonly accept by default, so that the client's limit is what gets tested.
inline constexpr std::size_t kDefaultHugeFrameBytes = 20 * 1024 * 1024;

/// A frame as the emulator sends it.
struct OutgoingFrame {
  std::string data;     ///< the payload
  bool binary = false;  ///< a binary frame rather than a text frame
};

/// The frame for a kind, e.g. for checking what a client received.
OutgoingFrame malformedFrame(Malformed kind, std::optional<std::int64_t> requestId = std::nullopt,
                             std::size_t hugeFrameBytes = kDefaultHugeFrameBytes);

/// The kind's name, e.g. "notJson", for logs and test names.
std::string_view name(Malformed kind) noexcept;

/// What the emulator does to a request it is armed for (Emulator::faultNextRequests,
/// Emulator::faultAllRequests), made by one of the factories below. Faults act on the requests
/// of authenticated sockets only: a request the emulator answers 401 meets none. A plain value.
class Fault {
 public:
  /// Which factory made the fault.
  enum class Kind {
    delay,             ///< delay()
    withhold,          ///< withhold()
    status,            ///< status()
    errorCode,         ///< errorCode()
    dropSocket,        ///< dropSocket()
    closeSocket,       ///< closeSocket()
    malformedResponse  ///< malformedResponse()
  };

  /// The handler runs; its answer goes out `duration` after the handler gave it.
  static Fault delay(std::chrono::milliseconds duration);
  /// The handler runs; its answer is never sent (the client's time-out is what ends the
  /// request). Counted in SocketInfo::responsesWithheld.
  static Fault withhold();
  /// The handler does not run; the request is answered with `status` and `body`, which a client
  /// reads as a failure for 400 through 500.
  static Fault status(int status, nlohmann::json body = nlohmann::json::object());
  /// The handler does not run; the request is answered 200 with `body` and the "error" member
  /// `code`, which fails the request with that code whatever the status.
  static Fault errorCode(std::int64_t code, nlohmann::json body = nlohmann::json::object());
  /// The handler does not run; the socket's TCP connection is reset at once, without a close
  /// frame.
  static Fault dropSocket();
  /// The handler does not run; the socket is closed with `code` and `reason`, after the frames
  /// already queued.
  static Fault closeSocket(std::uint16_t code, std::string reason = {});
  /// The handler does not run; malformedFrame(kind, the request's id, hugeFrameBytes) goes out
  /// instead of the answer.
  static Fault malformedResponse(Malformed kind,
                                 std::size_t hugeFrameBytes = kDefaultHugeFrameBytes);

  /// Which factory made the fault.
  Kind kind() const noexcept { return kind_; }
  /// The hold-back of a delay fault; zero for the others.
  std::chrono::milliseconds duration() const noexcept { return duration_; }
  /// The answer of status and errorCode faults.
  const Reply& reply() const noexcept { return reply_; }
  /// The close code of a closeSocket fault; 0 for the others.
  std::uint16_t closeCode() const noexcept { return closeCode_; }
  /// The close reason of a closeSocket fault; empty for the others.
  const std::string& closeReason() const noexcept { return closeReason_; }
  /// The frame kind of a malformedResponse fault (notJson for the others).
  Malformed malformed() const noexcept { return malformed_; }
  /// The size of a malformedResponse fault's huge frame.
  std::size_t hugeFrameBytes() const noexcept { return hugeFrameBytes_; }

 private:
  explicit Fault(Kind kind) noexcept : kind_(kind) {}

  Kind kind_;
  std::chrono::milliseconds duration_{0};
  Reply reply_;
  std::uint16_t closeCode_ = 0;
  std::string closeReason_;
  Malformed malformed_ = Malformed::notJson;
  std::size_t hugeFrameBytes_ = kDefaultHugeFrameBytes;
};

/// The kind's name, e.g. "withhold", for logs and test names.
std::string_view name(Fault::Kind kind) noexcept;

/// Which requests a fault applies to; an empty filter takes every request. A request must meet
/// every criterion given.
struct RequestFilter {
  /// Only the requests of this socket (SocketInfo::id).
  std::optional<SocketId> socket;
  /// Compared case-insensitively.
  std::optional<std::string> method;
  /// The request's path starts with this text ("/presence" takes "/presence/7?x=1").
  std::optional<std::string> pathPrefix;

  /// Whether a request of `requestSocket` with that method and path (as sent, query included)
  /// meets the filter.
  bool matches(SocketId requestSocket, std::string_view requestMethod,
               std::string_view requestPath) const;
};

}  // namespace kel::emulator
