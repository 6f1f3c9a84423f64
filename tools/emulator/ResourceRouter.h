#pragma once

// The socket's resources: requests ("2" + {"id", "path", "method", "body"}) are routed by method
// and path (see PathPattern.h) to handlers, whose reply goes back as "3" + {"id", "status",
// "body"} (plus "error" when the reply carries an error code).
//
// Answers that the router gives by itself:
//   400  the path is not a valid request target
//   404  no route matches the path
//   405  routes match the path, none with the request's method
//   500  the handler threw
// Their body is {"message": <why>}.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/PathPattern.h"
#include "emulator/detail/RouteTable.h"

namespace kel::emulator {

/// Identifies one WebSocket connection for the lifetime of an emulator; never reused.
using SocketId = std::uint64_t;

struct ResourceRequest {
  std::int64_t id = 0;
  /// Upper case.
  std::string method;
  /// The "path" member as sent, query included.
  std::string path;
  /// The path taken apart: segments and query parameters.
  Target target;
  /// Captures of the route's ":name" segments.
  std::map<std::string, std::string, std::less<>> params;
  /// What follows the route's path, without the leading "/" ("abc" for "/sessions/abc" routed to
  /// "/sessions"); empty when the path is exactly the route's.
  std::string rest;
  /// The "body" member; an empty object when the request had none.
  nlohmann::json body;

  /// Who asks: the socket and, once it authenticated, its session's user.
  SocketId socket = 0;
  std::string userId;
  std::string sessionId;
  std::string sessionToken;

  std::optional<std::string> param(std::string_view name) const;
  std::optional<std::string> queryValue(std::string_view key) const {
    return target.queryValue(key);
  }
};

struct Reply {
  int status = 200;
  nlohmann::json body = nlohmann::json::object();
  /// Sent as the response's "error" member: the client fails the request with this code whatever
  /// the status.
  std::optional<std::int64_t> error;

  static Reply ok(nlohmann::json body = nlohmann::json::object());
  static Reply withStatus(int status, nlohmann::json body = nlohmann::json::object());
  static Reply errorCode(std::int64_t code, nlohmann::json body = nlohmann::json::object());
  /// A status with the body {"message": message}.
  static Reply message(int status, std::string_view message);
};

namespace detail {
struct ResponderState;
}

/// Answers one request, now or later, from any thread. Copies share the request: the first
/// respond() sends the answer, later ones do nothing. A request whose responders are all dropped
/// without an answer is never answered (the client times out). Answers for a socket that has
/// closed in the meantime, or for an emulator that has stopped, are dropped.
class Responder {
 public:
  explicit Responder(std::shared_ptr<detail::ResponderState> state) noexcept;

  /// A responder that hands the reply to `onReply` on the thread that responds; for trying out
  /// handlers without a socket.
  static Responder capturing(std::int64_t requestId, std::function<void(Reply)> onReply);

  /// False when the request had already been answered.
  bool respond(Reply reply) const;
  bool answered() const noexcept;

  std::int64_t requestId() const noexcept;
  SocketId socket() const noexcept;

 private:
  std::shared_ptr<detail::ResponderState> state_;
};

/// Returns the reply at once; runs on the socket's network thread, so it must not block.
using ResourceHandler = std::function<Reply(const ResourceRequest&)>;
/// Answers through the responder whenever it likes, from any thread.
using AsyncResourceHandler = std::function<void(ResourceRequest, Responder)>;

/// The built-in echo resource: answers 200 with the request's body at once.
AsyncResourceHandler echoHandler();

/// Safe to change while requests are being served: a request uses the routes present when it
/// arrived; a handler may add or remove routes.
class ResourceRouter {
 public:
  /// `method` is compared case-insensitively; "*" accepts every method. A route with the same
  /// method and pattern as an existing one replaces it. Throws std::invalid_argument for a bad
  /// pattern.
  void route(std::string_view method, std::string_view pattern, ResourceHandler handler);
  void routeAsync(std::string_view method, std::string_view pattern, AsyncResourceHandler handler);
  /// False when no such route exists.
  bool remove(std::string_view method, std::string_view pattern);

  /// Routes the request (filling its target, params and rest) and hands it to the handler, or
  /// answers 400, 404, 405 or 500 by itself.
  void dispatch(ResourceRequest request, Responder responder) const;

 private:
  detail::RouteTable<AsyncResourceHandler> routes_;
};

}  // namespace kel::emulator
