#include "emulator/HttpRouter.h"

#include <exception>
#include <stdexcept>
#include <variant>

#include "ServerClient/Common/Json.h"
#include "emulator/detail/Text.h"

namespace kel::emulator {

namespace {

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

}  // namespace

HeaderFields parseCookieHeader(std::string_view header) {
  HeaderFields cookies;
  while (!header.empty()) {
    auto end = header.find(';');
    auto piece = trim(header.substr(0, end));
    header = end == std::string_view::npos ? std::string_view() : header.substr(end + 1);
    auto equals = piece.find('=');
    if (equals == std::string_view::npos) continue;
    auto name = trim(piece.substr(0, equals));
    auto value = trim(piece.substr(equals + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
      value = value.substr(1, value.size() - 2);
    }
    if (!name.empty()) cookies.emplace_back(std::string(name), std::string(value));
  }
  return cookies;
}

std::optional<std::string> HttpRequest::header(std::string_view name) const {
  const auto wanted = detail::upperCase(name);
  for (const auto& [field, value] : headers) {
    if (detail::upperCase(field) == wanted) return value;
  }
  return std::nullopt;
}

std::optional<std::string> HttpRequest::cookie(std::string_view name) const {
  for (const auto& [cookieName, value] : cookies) {
    if (cookieName == name) return value;
  }
  return std::nullopt;
}

std::optional<nlohmann::json> HttpRequest::json() const {
  return parseJson(body);
}

HttpResponse HttpResponse::json(int status, const nlohmann::json& body) {
  HttpResponse response;
  response.status = status;
  response.body = dumpJson(body).value_or("{}");
  return response;
}

HttpResponse HttpResponse::message(int status, std::string_view message) {
  return json(status, nlohmann::json{{"message", message}});
}

void HttpRouter::route(std::string_view method, std::string_view pattern, HttpHandler handler) {
  if (!handler) throw std::invalid_argument("a route needs a handler");
  routes_.add(method, pattern, std::move(handler));
}

bool HttpRouter::remove(std::string_view method, std::string_view pattern) {
  return routes_.remove(method, pattern);
}

HttpResponse HttpRouter::handle(HttpRequest request) const {
  auto target = parseTarget(request.path);
  if (!target) return HttpResponse::message(400, "not a valid request target: " + request.path);
  request.target = std::move(*target);
  request.method = detail::upperCase(request.method);

  auto found = routes_.find(request.method, request.target.segments);
  if (auto* miss = std::get_if<detail::RouteTable<HttpHandler>::Miss>(&found)) {
    if (*miss == detail::RouteTable<HttpHandler>::Miss::methodNotAllowed) {
      return HttpResponse::message(405,
                                   request.method + " is not allowed on " + request.target.path);
    }
    return HttpResponse::message(404, "no resource at " + request.target.path);
  }
  auto& route = std::get<detail::RouteTable<HttpHandler>::Found>(found);
  request.params = std::move(route.match.params);
  request.rest = std::move(route.match.rest);
  try {
    return route.route->handler(request);
  } catch (const std::exception& e) {
    return HttpResponse::message(500, std::string("handler failed: ") + e.what());
  } catch (...) {
    return HttpResponse::message(500, "handler failed");
  }
}

}  // namespace kel::emulator
