#pragma once

// Fault injection: what the emulator can do wrong on purpose, so that a client's handling of a
// misbehaving server can be tested.
//
// Two families:
//  - Malformed frames, sent on demand (Emulator::sendMalformed) or instead of a response
//    (Fault::malformedResponse).
//  - Request faults (Fault), armed for the next N requests or for every request of a socket
//    (Emulator::injectFault). They act when a request arrives, before or after its handler:
//      delay, withhold       the handler runs; its answer is held back, or never sent
//      status, errorCode     the handler does not run; the request is answered with the failure
//      dropSocket            the handler does not run; the TCP connection is reset (no close frame)
//      closeSocket           the handler does not run; the socket is closed with the code
//      malformedResponse     the handler does not run; a malformed frame goes out instead

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

struct OutgoingFrame {
  std::string data;
  bool binary = false;
};

/// The frame for a kind, e.g. for checking what a client received.
OutgoingFrame malformedFrame(Malformed kind, std::optional<std::int64_t> requestId = std::nullopt,
                             std::size_t hugeFrameBytes = kDefaultHugeFrameBytes);

std::string_view name(Malformed kind) noexcept;

class Fault {
 public:
  enum class Kind {
    delay,
    withhold,
    status,
    errorCode,
    dropSocket,
    closeSocket,
    malformedResponse
  };

  static Fault delay(std::chrono::milliseconds duration);
  static Fault withhold();
  static Fault status(int status, nlohmann::json body = nlohmann::json::object());
  static Fault errorCode(std::int64_t code, nlohmann::json body = nlohmann::json::object());
  static Fault dropSocket();
  static Fault closeSocket(std::uint16_t code, std::string reason = {});
  static Fault malformedResponse(Malformed kind,
                                 std::size_t hugeFrameBytes = kDefaultHugeFrameBytes);

  Kind kind() const noexcept { return kind_; }
  std::chrono::milliseconds duration() const noexcept { return duration_; }
  /// The answer of status and errorCode faults.
  const Reply& reply() const noexcept { return reply_; }
  std::uint16_t closeCode() const noexcept { return closeCode_; }
  const std::string& closeReason() const noexcept { return closeReason_; }
  Malformed malformed() const noexcept { return malformed_; }
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

std::string_view name(Fault::Kind kind) noexcept;

/// Which requests a fault applies to; an empty filter takes every request.
struct RequestFilter {
  std::optional<SocketId> socket;
  /// Compared case-insensitively.
  std::optional<std::string> method;
  /// The request's path starts with this text ("/presence" takes "/presence/7?x=1").
  std::optional<std::string> pathPrefix;

  bool matches(SocketId requestSocket, std::string_view requestMethod,
               std::string_view requestPath) const;
};

}  // namespace kel::emulator
