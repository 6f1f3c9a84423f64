#include "ServerClient/Group/Service/KelGroupService.h"

#include <utility>

#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/Utils/Description.h"
#include "ServerClient/Utils/JsonCollection.h"
#include "ServerClient/Utils/QueryBuilder.h"

namespace kel {

namespace {
using Path = KelGroupService::Path;

Pathname<Path> groupPath(const std::string& groupId) {
  return {Path::groups, {PathRule::append(groupId)}};
}
Pathname<Path> participantsPath(const std::string& groupId) {
  return {Path::groupParticipationsWithId, {PathRule::interpolation(groupId)}};
}
}  // namespace

KelGroupService::KelGroupService(SocketClientSlot socketClient)
    : SocketService(std::move(socketClient)) {}

rx::Observable<GroupDTO> KelGroupService::createGroup(const std::string& name,
                                                      const std::optional<std::string>& groupId) {
  nlohmann::json body{{"name", name}};
  if (groupId) body["groupId"] = *groupId;
  return send(Call<Path>{.pathname = Path::groups, .method = "POST", .body = std::move(body)})
      .map(&decode<GroupDTO>);
}

rx::Completable KelGroupService::deleteGroup(const std::string& groupId) {
  return perform(Call<Path>{.pathname = groupPath(groupId), .method = "DELETE"});
}

rx::Completable KelGroupService::add(const std::string& userId, const std::string& groupId) {
  return perform(Call<Path>{
      .pathname = participantsPath(groupId), .method = "POST", .body = {{"targetUserId", userId}}});
}

rx::Completable KelGroupService::remove(const std::string& userId, const std::string& groupId) {
  return perform(Call<Path>{.pathname = participantsPath(groupId),
                            .method = "DELETE",
                            .body = {{"targetUserId", userId}}});
}

rx::Completable KelGroupService::removeAllUsers(const std::string& groupId) {
  return perform(Call<Path>{.pathname = participantsPath(groupId), .method = "DELETE"});
}

rx::Completable KelGroupService::leaveAllGroups() {
  return perform(Call<Path>{.pathname = Path::groupParticipants, .method = "DELETE"});
}

rx::Completable KelGroupService::leave(const std::string& groupId) {
  return perform(Call<Path>{
      .pathname = {Path::groups, {PathRule::append(groupId), PathRule::append("/leave")}},
      .method = "DELETE"});
}

rx::Single<bool> KelGroupService::user(const std::string& userId, const std::string& groupId) {
  Call<Path> call{.pathname = {Path::groupParticipationsWithId,
                               {PathRule::interpolation(groupId), PathRule::append(userId)}},
                  .method = "HEAD"};
  return fetch<rx::Unit>(std::move(call))
      .map([](rx::Unit) { return true; })
      .catchError([](std::exception_ptr error) {
        const auto converted = toSDKError(error);
        const auto* connection = errorAs<ConnectionError>(converted);
        if (connection && connection->type() == ConnectionErrorType::notFound) {
          return rx::Single<bool>::just(false);
        }
        return rx::Single<bool>::error(converted);
      });
}

rx::Single<std::vector<GroupDTO>> KelGroupService::groups(bool userIsParticipanting) {
  return fetch<std::vector<GroupDTO>>(
             Call<Path>{.pathname = {Path::groups,
                                     {PathRule::query(QueryBuilder{
                                         {"participating", userIsParticipanting ? "true" : "false"}}
                                                          .build())}},
                        .method = "GET"})
      .map([](const std::vector<GroupDTO>& groups) {
        KEL_LOG_DEBUG("groups(userIsParticipanting:)", "Groups from server: " + textForm(groups));
        return groups;
      });
}

rx::Single<GroupDTO> KelGroupService::group(const std::string& groupId) {
  return fetch<GroupDTO>(Call<Path>{.pathname = groupPath(groupId), .method = "GET"})
      .map([](const GroupDTO& group) {
        KEL_LOG_DEBUG("group(with:)", "Group from server: " + description(group));
        return group;
      });
}

rx::Completable KelGroupService::changeRingingStrategy(const std::string& groupId,
                                                       const RingingStrategyDTO& strategy) {
  return perform(Call<Path>{
      .pathname = groupPath(groupId), .method = "PUT", .body = encodeRingingStrategy(strategy)});
}

rx::Completable KelGroupService::reorderParticipants(const std::string& groupId,
                                                     const std::vector<std::string>& participants) {
  return perform(Call<Path>{.pathname = participantsPath(groupId),
                            .method = "PUT",
                            .body = {{"participants", participants}}});
}

}  // namespace kel
