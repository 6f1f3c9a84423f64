#include "ServerClient/MissedCalls/Service/KelMissedCallsService.h"

#include <utility>

#include "ServerClient/Utils/QueryBuilder.h"

namespace kel {

KelMissedCallsService::KelMissedCallsService(SocketClientSlot socketClient)
    : SocketService(std::move(socketClient)) {}

rx::Single<MissedCallsDTO> KelMissedCallsService::getMissedCalls(
    const MissedCallsRequest& request) {
  return fetch<MissedCallsDTO>(
      Call<Path>{.pathname = {Path::missedCalls, {PathRule::append(request.userId)}},
                 .method = "GET",
                 .body = nlohmann::json::object()});
}

rx::Completable KelMissedCallsService::setReadMissedCalls(const MissedCallsReadRequest& request) {
  return perform(
      Call<Path>{.pathname = {Path::missedCallsRead,
                              {PathRule::interpolation(request.userId),
                               PathRule::query(QueryBuilder{{"last", request.callId}}.build())}},
                 .method = "POST",
                 .body = nlohmann::json::object()});
}

}  // namespace kel
