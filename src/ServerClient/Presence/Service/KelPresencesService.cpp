#include "ServerClient/Presence/Service/KelPresencesService.h"

#include <utility>

#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/Utils/Description.h"
#include "ServerClient/Utils/QueryBuilder.h"

namespace kel {

KelPresencesService::KelPresencesService(SocketClientSlot socketClient)
    : SocketService(std::move(socketClient)) {}

rx::Single<PresenceDTO> KelPresencesService::subscribe(const std::string& address) {
  return fetch<PresenceDTO>(
      Call<Path>{.pathname = Path::presence, .method = "POST", .body = {{"address", address}}});
}

rx::Single<std::vector<PresenceDTO>> KelPresencesService::subscribe(
    const std::vector<std::string>& addresses) {
  return fetch<std::vector<PresenceDTO>>(Call<Path>{
      .pathname = Path::batchPresence, .method = "POST", .body = nlohmann::json(addresses)});
}

rx::Single<PresenceDTO> KelPresencesService::presence(const std::string& address, bool avatar) {
  Call<Path> call{
      .pathname = {Path::presence,
                   {PathRule::append(presencePathAddress(address)),
                    PathRule::query(QueryBuilder{{"withoutAvatar", QueryValue(avatar)}}.build())}},
      .method = "GET",
      .body = nlohmann::json::object()};
  return fetch<PresenceDTO>(std::move(call)).map([](const PresenceDTO& presence) {
    KEL_LOG_DEBUG("presence(with:avatar:)", "Presence from server: " + description(presence));
    return presence;
  });
}

rx::Single<PresenceDTO> KelPresencesService::update(const PresenceUpdateRequest& request) {
  return fetch<PresenceDTO>(
      Call<Path>{.pathname = {Path::presence, {PathRule::append(request.address)}},
                 .method = "PUT",
                 .body = nlohmann::json(request.toDictionary()),
                 .timeout = kUpdateTimeout});
}

}  // namespace kel
