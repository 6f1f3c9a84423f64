#include "emulator/Fault.h"

#include <utility>

#include "ServerClient/Common/Json.h"
#include "emulator/detail/Text.h"

namespace kel::emulator {

namespace {

// A response when there is an id to answer, otherwise an event, so the frame stands in for
// whatever the client is waiting for.
nlohmann::json envelope(std::optional<std::int64_t> requestId, nlohmann::json body) {
  if (requestId) return {{"id", *requestId}, {"status", 200}, {"body", std::move(body)}};
  return {{"path", "/malformed"}, {"method", "PUT"}, {"body", std::move(body)}};
}

std::string compactOrEmptyObject(const nlohmann::json& value) {
  return dumpJson(value).value_or("{}");
}

}  // namespace

OutgoingFrame malformedFrame(Malformed kind, std::optional<std::int64_t> requestId,
                             std::size_t hugeFrameBytes) {
  switch (kind) {
    case Malformed::notJson: {
      auto text = "3" + compactOrEmptyObject(envelope(requestId, nlohmann::json::object()));
      text.resize(text.size() / 2);
      return {std::move(text), false};
    }
    case Malformed::bareThree:
      return {"3", false};
    case Malformed::list:
      return {"3[]", false};
    case Malformed::scalar:
      return {"342", false};
    case Malformed::stringId: {
      nlohmann::json object{{"id", std::to_string(requestId.value_or(0))},
                            {"status", 200},
                            {"body", nlohmann::json::object()}};
      return {"3" + compactOrEmptyObject(object), false};
    }
    case Malformed::binary:
      return {"3" + compactOrEmptyObject(envelope(requestId, nlohmann::json::object())), true};
    case Malformed::invalidUtf8: {
      // Built by hand: the JSON serialiser refuses invalid UTF-8, which is the point here.
      auto text = "3" + compactOrEmptyObject(envelope(requestId, ""));
      const auto quotes = text.rfind("\"\"");
      text.insert(quotes + 1, "\xff\xfe");
      return {std::move(text), false};
    }
    case Malformed::huge: {
      auto text = "3" + compactOrEmptyObject(envelope(requestId, ""));
      const auto quotes = text.rfind("\"\"");
      if (hugeFrameBytes > text.size()) text.insert(quotes + 1, hugeFrameBytes - text.size(), 'x');
      return {std::move(text), false};
    }
    case Malformed::empty:
      return {"", false};
  }
  return {"", false};
}

std::string_view name(Malformed kind) noexcept {
  switch (kind) {
    case Malformed::notJson:
      return "notJson";
    case Malformed::bareThree:
      return "bareThree";
    case Malformed::list:
      return "list";
    case Malformed::scalar:
      return "scalar";
    case Malformed::stringId:
      return "stringId";
    case Malformed::binary:
      return "binary";
    case Malformed::invalidUtf8:
      return "invalidUtf8";
    case Malformed::huge:
      return "huge";
    case Malformed::empty:
      return "empty";
  }
  return "?";
}

Fault Fault::delay(std::chrono::milliseconds duration) {
  Fault fault(Kind::delay);
  fault.duration_ = duration;
  return fault;
}

Fault Fault::withhold() {
  return Fault(Kind::withhold);
}

Fault Fault::status(int status, nlohmann::json body) {
  Fault fault(Kind::status);
  fault.reply_ = Reply::withStatus(status, std::move(body));
  return fault;
}

Fault Fault::errorCode(std::int64_t code, nlohmann::json body) {
  Fault fault(Kind::errorCode);
  fault.reply_ = Reply::errorCode(code, std::move(body));
  return fault;
}

Fault Fault::dropSocket() {
  return Fault(Kind::dropSocket);
}

Fault Fault::closeSocket(std::uint16_t code, std::string reason) {
  Fault fault(Kind::closeSocket);
  fault.closeCode_ = code;
  fault.closeReason_ = std::move(reason);
  return fault;
}

Fault Fault::malformedResponse(Malformed kind, std::size_t hugeFrameBytes) {
  Fault fault(Kind::malformedResponse);
  fault.malformed_ = kind;
  fault.hugeFrameBytes_ = hugeFrameBytes;
  return fault;
}

std::string_view name(Fault::Kind kind) noexcept {
  switch (kind) {
    case Fault::Kind::delay:
      return "delay";
    case Fault::Kind::withhold:
      return "withhold";
    case Fault::Kind::status:
      return "status";
    case Fault::Kind::errorCode:
      return "errorCode";
    case Fault::Kind::dropSocket:
      return "dropSocket";
    case Fault::Kind::closeSocket:
      return "closeSocket";
    case Fault::Kind::malformedResponse:
      return "malformedResponse";
  }
  return "?";
}

bool RequestFilter::matches(SocketId requestSocket, std::string_view requestMethod,
                            std::string_view requestPath) const {
  if (socket && *socket != requestSocket) return false;
  if (method && detail::upperCase(*method) != detail::upperCase(requestMethod)) return false;
  if (pathPrefix && !requestPath.starts_with(*pathPrefix)) return false;
  return true;
}

}  // namespace kel::emulator
