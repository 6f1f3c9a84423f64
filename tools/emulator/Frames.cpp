#include "emulator/Frames.h"

#include "ServerClient/Common/Json.h"
#include "ServerClient/Socket/Model/AuthFrame.h"
#include "ServerClient/Socket/Model/detail/JsonInteger.h"

namespace kel::emulator {

namespace {

// Replacing invalid UTF-8 keeps a handler's sloppy string from costing the client its answer;
// Malformed::invalidUtf8 is the way to send bad bytes on purpose.
std::string compact(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

FrameKind classifyClientFrame(std::string_view frame) noexcept {
  if (frame.starts_with(kAuthFramePrefix)) return FrameKind::auth;
  if (frame.starts_with('2')) {
    try {
      if (parseRequestFrame(frame)) return FrameKind::request;
    } catch (...) {
      // Out of memory while parsing: as good as malformed.
    }
  }
  return FrameKind::malformed;
}

std::optional<RequestFrame> parseRequestFrame(std::string_view frame) {
  if (!frame.starts_with('2')) return std::nullopt;
  auto object = parseJson(frame.substr(1));
  if (!object || !object->is_object()) return std::nullopt;
  auto id = object->find("id");
  auto path = object->find("path");
  auto method = object->find("method");
  if (id == object->end() || path == object->end() || method == object->end()) return std::nullopt;
  auto idValue = kel::detail::jsonInt64(*id);
  if (!idValue || !path->is_string() || !method->is_string()) return std::nullopt;
  RequestFrame request;
  request.id = *idValue;
  request.path = path->get<std::string>();
  request.method = method->get<std::string>();
  auto body = object->find("body");
  request.body = body == object->end() ? nlohmann::json::object() : std::move(*body);
  return request;
}

std::string authAcknowledgementFrame(std::string_view kapiId) {
  return compact(nlohmann::json{{"kapiId", kapiId}});
}

std::string responseFrame(std::int64_t requestId, const Reply& reply) {
  // Written piecewise rather than through a JSON object, so the body is never copied.
  std::string frame = "3{\"id\":";
  frame += std::to_string(requestId);
  frame += ",\"status\":";
  frame += std::to_string(reply.status);
  if (reply.error) {
    frame += ",\"error\":";
    frame += std::to_string(*reply.error);
  }
  frame += ",\"body\":";
  frame += compact(reply.body);
  frame += '}';
  return frame;
}

std::string eventFrame(std::string_view path, std::string_view method, const nlohmann::json& body) {
  nlohmann::json object = nlohmann::json::object();
  object["path"] = path;
  object["method"] = method;
  object["body"] = body;
  return "3" + compact(object);
}

}  // namespace kel::emulator
