#include "ServerClient/Alert/Service/KelAlertsService.h"

#include <cstdint>
#include <utility>

#include "ServerClient/Common/Random.h"
#include "ServerClient/Utils/JsonCollection.h"
#include "ServerClient/Utils/Model.h"
#include "ServerClient/Utils/QueryBuilder.h"

namespace kel {

namespace {

std::optional<QueryValue> since(std::optional<int> seconds) {
  if (!seconds) return std::nullopt;
  if (*seconds < 0) return QueryValue(-1);
  return QueryValue(static_cast<std::int64_t>(*seconds) * 1000);
}

std::vector<ServerAlert> alertsIn(const Resource& resource) {
  std::vector<ServerAlert> all;
  for (const char* key : {"active", "accepted", "expired"}) {
    auto list = Model::from<std::vector<ServerAlert>>(dataFor(resource.data, key));
    all.insert(all.end(), std::make_move_iterator(list.begin()),
               std::make_move_iterator(list.end()));
  }
  return all;
}

}  // namespace

KelAlertsService::KelAlertsService(SocketClientSlot socketClient)
    : SocketService(std::move(socketClient)) {}

rx::Single<std::vector<ServerAlertTemplate>> KelAlertsService::alertTemplates() {
  return firstResource(
             send(Call<Path>{
                 .pathname = Path::templates, .method = "GET", .body = nlohmann::json::object()}))
      .map([](const Resource& resource) {
        return Model::from<std::vector<ServerAlertTemplate>>(
            dataFor(resource.data, "alertTemplates"));
      });
}

rx::Single<std::vector<ServerAlert>> KelAlertsService::alerts(std::optional<int> acceptedInLast,
                                                              std::optional<int> cancelledInLast,
                                                              std::optional<int> expiredInLast) {
  const auto query = QueryBuilder{{"acceptedSince", since(acceptedInLast)},
                                  {"cancelledSince", since(cancelledInLast)},
                                  {"expiredSince", since(expiredInLast)}}
                         .build();
  return firstResource(send(Call<Path>{.pathname = {Path::alerts, {PathRule::query(query)}},
                                       .method = "GET",
                                       .body = nlohmann::json::object()}))
      .map(&alertsIn);
}

rx::Completable KelAlertsService::sendAlert(const ServerAlertTemplate& alertTemplate) {
  return perform(Call<Path>{
      .pathname = Path::alerts,
      .method = "POST",
      .body = {{"alertId", makeUUIDString()}, {"templateId", alertTemplate.templateId}}});
}

rx::Completable KelAlertsService::accept(const std::string& alertId) {
  return perform(
      Call<Path>{.pathname = Path::accept, .method = "POST", .body = {{"alertId", alertId}}});
}

}  // namespace kel
