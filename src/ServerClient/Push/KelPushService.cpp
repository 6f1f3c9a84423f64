#include "ServerClient/Push/KelPushService.h"

#include <map>
#include <utility>

#include <nlohmann/json.hpp>

namespace kel {

namespace {
rx::Single<rx::Unit> toUnit(rx::Single<Resource> response) {
  return response.map([](const Resource&) { return rx::Unit{}; });
}
}  // namespace

KelPushService::KelPushService(SocketClientSlot socketClient)
    : SocketService(std::move(socketClient)) {}

rx::Single<rx::Unit> KelPushService::sendPushToken(const std::string& token, bool production,
                                                   const std::string& deviceId) {
  JsonRequest<Path> request{
      .pathname = Path::push,
      .body = nlohmann::json{{"deviceId", deviceId},
                             {"tokenType", kTokenType},
                             {"token", token},
                             {"options", {{"isProduction", production}}}},
      .method = "POST",
  };
  return toUnit(firstResource(sendRequestOrError(std::move(request))));
}

rx::Single<rx::Unit> KelPushService::deletePushToken(const std::string& deviceId) {
  Request<std::map<std::string, std::string>, Path> request{
      .pathname = Path::push,
      .body = std::map<std::string, std::string>{{"deviceId", deviceId}},
      .method = "DELETE",
  };
  return toUnit(firstResource(sendRequestOrError(std::move(request))));
}

}  // namespace kel
