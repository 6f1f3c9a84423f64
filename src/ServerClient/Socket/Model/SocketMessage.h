#pragma once

// Incoming text frames and how they are told apart, in this order:
//   1. first byte "0": a ping (the rest of the frame is ignored);
//   2. first byte "3": the rest must be a JSON object or list (a bare scalar is unknown); a list
//      stands for an empty object. An object whose "id" is a JSON integer that fits int64 is a
//      response to that id; any other object is an event;
//   3. anything else, the empty frame included: a non-empty JSON object with a "kapiId" member
//      (any value) is the server's authentication acknowledgement; everything else is unknown.
// Frames that are not valid UTF-8 or nest deeper than kMaxJsonDepth are unknown.
//
// The prefix is the frame's first byte, not its first user-perceived character: "0" followed by a
// combining mark is still a ping.

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include <nlohmann/json.hpp>

namespace kel {

/// An incoming text frame after classification.
class SocketMessage {
 public:
  /// The answer to a request. `json` is the whole response object, "id" included.
  struct Response {
    std::int64_t id;      ///< the request's identifier
    nlohmann::json json;  ///< the whole response object
    /// Same id and JSON.
    bool operator==(const Response&) const = default;
  };
  /// A server-pushed event; `json` is the event envelope, always an object, never null. It is
  /// shared, so that copies of the message and the events published from it read one document.
  struct Event {
    std::shared_ptr<const nlohmann::json> json;  ///< the envelope: "path", "method", "body"
    /// Same JSON.
    bool operator==(const Event& other) const { return *json == *other.json; }
  };
  /// The server accepted the authentication frame.
  struct Auth {
    /// Always equal.
    bool operator==(const Auth&) const = default;
  };
  /// The server's keep-alive probe.
  struct Ping {
    /// Always equal.
    bool operator==(const Ping&) const = default;
  };
  /// Anything else.
  struct Unknown {
    /// Always equal.
    bool operator==(const Unknown&) const = default;
  };

  /// One of the five cases with its payload.
  using Value = std::variant<Response, Event, Auth, Ping, Unknown>;

  /// The cases, in the order of Value's alternatives.
  enum class Kind { response, event, auth, ping, unknown };

  /// A response to request `id`.
  static SocketMessage response(std::int64_t id, nlohmann::json json) {
    return SocketMessage(Response{id, std::move(json)});
  }
  /// An event with envelope `json`.
  static SocketMessage event(nlohmann::json json) {
    return SocketMessage(Event{std::make_shared<const nlohmann::json>(std::move(json))});
  }
  /// The authentication acknowledgement.
  static SocketMessage auth() noexcept { return SocketMessage(Auth{}); }
  /// A ping.
  static SocketMessage ping() noexcept { return SocketMessage(Ping{}); }
  /// A frame that is none of the others.
  static SocketMessage unknown() noexcept { return SocketMessage(Unknown{}); }

  /// Classifies one incoming text frame (see the top of this header). Never throws: whatever
  /// cannot be read, running out of memory included, is unknown.
  static SocketMessage create(std::string_view frame) noexcept;

  /// Which case this is.
  Kind kind() const noexcept { return static_cast<Kind>(value_.index()); }
  /// The case and its payload.
  const Value& value() const noexcept { return value_; }

  /// The payload of a response; null for the other kinds.
  const Response* asResponse() const noexcept { return std::get_if<Response>(&value_); }
  /// The payload of an event; null for the other kinds.
  const Event* asEvent() const noexcept { return std::get_if<Event>(&value_); }

  /// Same case and payload.
  bool operator==(const SocketMessage&) const = default;

 private:
  explicit SocketMessage(Value value) noexcept : value_(std::move(value)) {}

  Value value_;
};

/// The kind's name, e.g. "response".
std::string_view name(SocketMessage::Kind kind) noexcept;

/// For log lines and test output: "response(5, {...})", "event({...})", "auth", "ping",
/// "unknown".
std::string describe(const SocketMessage& message);
/// Writes describe(message).
std::ostream& operator<<(std::ostream& out, const SocketMessage& message);

}  // namespace kel
