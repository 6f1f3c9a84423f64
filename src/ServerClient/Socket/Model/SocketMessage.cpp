#include "ServerClient/Socket/Model/SocketMessage.h"

#include <optional>
#include <ostream>

#include "ServerClient/Common/Json.h"
#include "ServerClient/Socket/Model/detail/JsonInteger.h"

namespace kel {

namespace {

static_assert(std::variant_size_v<SocketMessage::Value> == 5 &&
                  static_cast<std::size_t>(SocketMessage::Kind::unknown) == 4,
              "Kind must follow the order of Value's alternatives");

constexpr char kPingPrefix = '0';
constexpr char kMessagePrefix = '3';
constexpr const char* kAuthMarker = "kapiId";

// A JSON document whose top level is an object or a list; a bare scalar does not count.
std::optional<nlohmann::json> parseDocument(std::string_view text) {
  auto value = parseJson(text);
  if (!value || !(value->is_object() || value->is_array())) return std::nullopt;
  return value;
}

SocketMessage classify(std::string_view frame) {
  if (!frame.empty() && frame.front() == kPingPrefix) return SocketMessage::ping();

  if (!frame.empty() && frame.front() == kMessagePrefix) {
    auto document = parseDocument(frame.substr(1));
    if (!document) return SocketMessage::unknown();
    if (document->is_array()) return SocketMessage::event(nlohmann::json::object());
    if (const auto id = document->find("id"); id != document->end()) {
      if (const auto value = detail::jsonInt64(*id)) {
        return SocketMessage::response(*value, std::move(*document));
      }
    }
    return SocketMessage::event(std::move(*document));
  }

  const auto document = parseDocument(frame);
  if (document && document->is_object() && !document->empty() && document->contains(kAuthMarker)) {
    return SocketMessage::auth();
  }
  return SocketMessage::unknown();
}

std::string jsonText(const nlohmann::json& json) {
  return dumpJson(json).value_or("<unprintable JSON>");
}

}  // namespace

SocketMessage SocketMessage::create(std::string_view frame) noexcept {
  try {
    return classify(frame);
  } catch (...) {
    return unknown();
  }
}

std::string_view name(SocketMessage::Kind kind) noexcept {
  switch (kind) {
    case SocketMessage::Kind::response:
      return "response";
    case SocketMessage::Kind::event:
      return "event";
    case SocketMessage::Kind::auth:
      return "auth";
    case SocketMessage::Kind::ping:
      return "ping";
    case SocketMessage::Kind::unknown:
      return "unknown";
  }
  return "unknown";
}

std::string describe(const SocketMessage& message) {
  if (const auto* response = message.asResponse()) {
    return "response(" + std::to_string(response->id) + ", " + jsonText(response->json) + ")";
  }
  if (const auto* event = message.asEvent()) return "event(" + jsonText(*event->json) + ")";
  return std::string(name(message.kind()));
}

std::ostream& operator<<(std::ostream& out, const SocketMessage& message) {
  return out << describe(message);
}

}  // namespace kel
