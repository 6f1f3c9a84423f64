#pragma once

// A request to the server and the text of its frame:
//
//   2{
//     "body": {...},
//     "id": 1234,
//     "method": "GET",
//     "path": "/presence/42"
//   }
//
// that is the digit "2" directly followed by the wire object pretty-printed with two spaces per
// level. The members come out in key order; the server reads them by name. `timeout` and
// `headers` stay on this side.

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <type_traits>

#include <nlohmann/json.hpp>

#include "ServerClient/Socket/Model/PathRepresentable.h"
#include "ServerClient/Socket/Model/Pathname.h"

namespace kel {

/// How long the socket client waits for a response unless a request says otherwise.
inline constexpr std::chrono::seconds kDefaultRequestTimeout{20};

/// Largest request identifier makeRequestID() draws: 2^31 - 2.
inline constexpr std::int64_t kMaxRequestID = 2147483646;

/// A fresh request identifier, uniform in [0, kMaxRequestID], from the operating system's secure
/// random source. Two pending requests can still draw the same one (with 10,000 pending, about
/// once in 40 batches), so the socket client sends a request whose identifier is pending under a
/// fresh one.
std::int64_t makeRequestID();

namespace detail {
/// The request frame of the wire object made of these members ({} for a null `body`), written
/// straight into one string, or nothing when it cannot be serialised as JSON text: a string that
/// is not valid UTF-8, a non-finite number, a binary value or a discarded value anywhere inside.
std::optional<std::string> requestFrame(std::int64_t id, const std::string& path,
                                        const std::string& method,
                                        const nlohmann::json* body) noexcept;
}  // namespace detail

/// A request for one of the server's resources. Build it with designated initialisers; the
/// identifier and the time-out default to a fresh random identifier and 20 seconds:
///
///   Request<nlohmann::json, KelPresencesService::Path> request{
///       .pathname = {Path::presence, {PathRule::append(userId)}},
///       .body = nlohmann::json::array(),
///       .method = "GET",
///   };
///
/// `Body` is any type that nlohmann::json can be built from (the services send JSON objects,
/// lists and text maps); JsonRequest<Path> names the usual case.
template <class Body, PathRepresentable Path>
struct Request {
  // Every member but pathname has a default initialiser, even where {} changes nothing, so that
  // designated initialisers leaving them out draw no missing-initialiser warning.

  /// Matches the response to the request. A JSON integer on the wire; the library draws it in
  /// [0, 2^31 - 2], the type leaves room for any id the server echoes.
  std::int64_t requestID = makeRequestID();
  /// How long the socket client waits for the response.
  std::chrono::seconds timeout = kDefaultRequestTimeout;
  /// The resource ("path" on the wire).
  Pathname<Path> pathname;
  /// Carried for the caller's use; not transmitted.
  std::map<std::string, std::string> headers{};
  /// The "body"; absent sends {}.
  std::optional<Body> body{};
  /// "GET", "POST", "PUT" or "DELETE".
  std::string method{};

  /// The wire object: "id", "path", "method" and "body" ({} when the request has no body).
  /// Throws only what converting `Body` to JSON throws.
  nlohmann::json toDictionary() const {
    return {
        {"id", requestID},
        {"path", pathname.value()},
        {"method", method},
        {"body", body ? nlohmann::json(*body) : nlohmann::json::object()},
    };
  }

  /// The complete request frame, or nothing when the wire object cannot be serialised or would
  /// not be valid UTF-8. Never throws.
  std::optional<std::string> toMessage() const noexcept {
    try {
      if constexpr (std::is_same_v<Body, nlohmann::json>) {
        return detail::requestFrame(requestID, pathname.value(), method, body ? &*body : nullptr);
      } else {
        if (!body) return detail::requestFrame(requestID, pathname.value(), method, nullptr);
        const nlohmann::json converted(*body);
        return detail::requestFrame(requestID, pathname.value(), method, &converted);
      }
    } catch (...) {
      return std::nullopt;
    }
  }

  /// Every member equal, the identifier included.
  bool operator==(const Request&) const = default;
};

/// A request whose body is any JSON value.
template <PathRepresentable Path>
using JsonRequest = Request<nlohmann::json, Path>;

}  // namespace kel
