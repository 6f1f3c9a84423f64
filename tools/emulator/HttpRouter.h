#pragma once

// Plain HTTP requests on the emulator's port (everything that is not a WebSocket upgrade): the
// sign-in resources live here. Routing works as for the socket (see PathPattern.h); a path that
// no route matches answers 404, a known path with another method 405, a throwing handler 500, a
// target that does not parse 400, each with the JSON body {"message": <why>}.

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/PathPattern.h"
#include "emulator/detail/RouteTable.h"

namespace kel::emulator {

using HeaderFields = std::vector<std::pair<std::string, std::string>>;

/// The name=value pairs of a Cookie header ("a=1; b=2"), in order, values unquoted. Pieces
/// without "=" are skipped.
HeaderFields parseCookieHeader(std::string_view header);

struct HttpRequest {
  /// Upper case.
  std::string method;
  /// The request target as sent.
  std::string path;
  Target target;
  std::map<std::string, std::string, std::less<>> params;
  std::string rest;
  HeaderFields headers;
  HeaderFields cookies;
  std::string body;

  /// The first header field of that name, compared case-insensitively.
  std::optional<std::string> header(std::string_view name) const;
  std::optional<std::string> cookie(std::string_view name) const;
  /// The body parsed as JSON; nothing when it is not.
  std::optional<nlohmann::json> json() const;
};

struct HttpResponse {
  int status = 200;
  std::string body;
  std::string contentType = "application/json";
  /// Extra fields, e.g. {"Set-Cookie", "session=...; Path=/; HttpOnly"}.
  HeaderFields headers;

  static HttpResponse json(int status, const nlohmann::json& body);
  /// A status with the JSON body {"message": message}.
  static HttpResponse message(int status, std::string_view message);
};

/// Runs on a network thread; must not block.
using HttpHandler = std::function<HttpResponse(const HttpRequest&)>;

/// Safe to change while requests are being served.
class HttpRouter {
 public:
  /// See ResourceRouter::route.
  void route(std::string_view method, std::string_view pattern, HttpHandler handler);
  bool remove(std::string_view method, std::string_view pattern);

  /// Routes the request (filling its target, params and rest) and returns the handler's answer
  /// or the router's own.
  HttpResponse handle(HttpRequest request) const;

 private:
  detail::RouteTable<HttpHandler> routes_;
};

}  // namespace kel::emulator
