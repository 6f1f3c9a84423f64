// Feeds arbitrary bytes to frame classification and checks what must hold for every frame:
// nothing throws or crashes, the class agrees with the prefix, and whatever is kept as JSON can
// be written out and read back unchanged (the library logs and re-serialises it later).

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "ServerClient/Common/Json.h"
#include "ServerClient/Socket/Model/ErrorCode.h"
#include "ServerClient/Socket/Model/Resource.h"
#include "ServerClient/Socket/Model/SocketMessage.h"

namespace {

void check(bool condition) {
  if (!condition) __builtin_trap();
}

void checkRoundTrip(const nlohmann::json& json) {
  check(json.is_object());
  const auto text = kel::dumpJson(json);
  check(text.has_value());
  const auto again = kel::parseJson(*text);
  check(again.has_value() && *again == json);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view frame(reinterpret_cast<const char*>(data), size);
  const auto message = kel::SocketMessage::create(frame);
  const char first = frame.empty() ? '\0' : frame.front();
  switch (message.kind()) {
    case kel::SocketMessage::Kind::ping:
      check(first == '0');
      break;
    case kel::SocketMessage::Kind::response: {
      check(first == '3');
      const auto& response = *message.asResponse();
      checkRoundTrip(response.json);
      check(response.json.at("id").is_number_integer());
      (void)kel::errorCode(response.json);
      const auto resource = kel::Resource::fromResponse(response.id, response.json);
      check(resource.requestID == std::to_string(response.id));
      check(resource.data.empty() || kel::parseJson(resource.data).has_value());
      break;
    }
    case kel::SocketMessage::Kind::event:
      check(first == '3');
      checkRoundTrip(*message.asEvent()->json);
      break;
    case kel::SocketMessage::Kind::auth:
      check(first != '0' && first != '3');
      break;
    case kel::SocketMessage::Kind::unknown:
      check(first != '0');
      break;
  }
  (void)kel::describe(message);
  return 0;
}
