#include "ServerClient/ConferenceLog/Service/KelConferenceLogService.h"

#include <utility>

#include "ServerClient/Utils/EpochMilliseconds.h"
#include "ServerClient/Utils/QueryBuilder.h"

namespace kel {

KelConferenceLogService::KelConferenceLogService(SocketClientSlot socketClient)
    : SocketService(std::move(socketClient)) {}

rx::Observable<std::vector<ConferenceEntry>> KelConferenceLogService::conferencesEntries(
    std::optional<std::chrono::system_clock::time_point> before,
    std::optional<std::chrono::system_clock::time_point> after, int limit, bool sortDescending) {
  QueryBuilder::Parameters query{{"limit", limit},
                                 {"sortBy", sortDescending ? "createdAt.desc" : "createdAt.asc"}};
  if (before) query.emplace("createdAtBefore", epochMilliseconds(*before));
  if (after) query.emplace("createdAtSince", epochMilliseconds(*after));
  return send(Call<Path>{
                  .pathname = {Path::conferences, {PathRule::query(QueryBuilder(query).build())}},
                  .method = "GET",
                  .body = nlohmann::json::object()})
      .map(&decode<std::vector<ConferenceEntry>>);
}

}  // namespace kel
