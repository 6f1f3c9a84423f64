#include "ServerClient/Push/KelPushService.h"

#include <utility>

#include <nlohmann/json.hpp>

namespace kel {

KelPushService::KelPushService(SocketClientSlot socketClient)
    : SocketService(std::move(socketClient)) {}

rx::Single<rx::Unit> KelPushService::sendPushToken(const std::string& token, bool production,
                                                   const std::string& deviceId) {
  return fetch<rx::Unit>(Call<Path>{.pathname = Path::push,
                                    .method = "POST",
                                    .body = {{"deviceId", deviceId},
                                             {"tokenType", kTokenType},
                                             {"token", token},
                                             {"options", {{"isProduction", production}}}}});
}

rx::Single<rx::Unit> KelPushService::deletePushToken(const std::string& deviceId) {
  return fetch<rx::Unit>(
      Call<Path>{.pathname = Path::push, .method = "DELETE", .body = {{"deviceId", deviceId}}});
}

}  // namespace kel
