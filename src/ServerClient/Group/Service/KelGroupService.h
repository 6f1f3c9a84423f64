#pragma once

#include "ServerClient/Client/SocketService.h"
#include "ServerClient/Group/Service/GroupService.h"

namespace kel {

/// Groups over the socket (body [] where none is given):
///   createGroup(name, id)        POST   "/usersGroup" {"groupId"?, "name"}  -> each answer as
///   GroupDTO deleteGroup(g)               DELETE "/usersGroup/<g>" add(u, g) / remove(u, g) POST /
///   DELETE "/usersGroup/<g>/participants" {"targetUserId": u} removeAllUsers(g)            DELETE
///   "/usersGroup/<g>/participants" leaveAllGroups()             DELETE
///   "/usersGroups/participations" leave(g)                     DELETE "/usersGroup/<g>//leave"
///   (the server's spelling) user(u, g)                   HEAD   "/usersGroup/<g>/participants/<u>"
///   -> true; notFound -> false groups(p)                    GET    "/usersGroup?participating=<p>"
///   -> list of GroupDTO group(g)                     GET    "/usersGroup/<g>" -> GroupDTO
///   changeRingingStrategy(g, s)  PUT    "/usersGroup/<g>" {"ringingStrategy": {...}}
///   reorderParticipants(g, l)    PUT    "/usersGroup/<g>/participants" {"participants": l}
/// Completables ignore the answer's content.
class KelGroupService : public SocketService, public virtual GroupService {
 public:
  enum class Path { groups, groupParticipationsWithId, groupParticipants, participantInGroup };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({{Path::groups, "/usersGroup"},
                                {Path::groupParticipationsWithId, "/usersGroup/:id/participants"},
                                {Path::groupParticipants, "/usersGroups/participations"},
                                {Path::participantInGroup, "/usersGroup/participant"}});
  }

  explicit KelGroupService(SocketClientSlot socketClient);

  rx::Observable<GroupDTO> createGroup(const std::string& name,
                                       const std::optional<std::string>& groupId) override;
  rx::Completable deleteGroup(const std::string& groupId) override;
  rx::Completable add(const std::string& userId, const std::string& groupId) override;
  rx::Completable remove(const std::string& userId, const std::string& groupId) override;
  rx::Completable removeAllUsers(const std::string& groupId) override;
  rx::Completable leaveAllGroups() override;
  rx::Completable leave(const std::string& groupId) override;
  rx::Single<bool> user(const std::string& userId, const std::string& groupId) override;
  rx::Single<std::vector<GroupDTO>> groups(bool userIsParticipanting) override;
  rx::Single<GroupDTO> group(const std::string& groupId) override;
  rx::Completable changeRingingStrategy(const std::string& groupId,
                                        const RingingStrategyDTO& strategy) override;
  rx::Completable reorderParticipants(const std::string& groupId,
                                      const std::vector<std::string>& participants) override;
};

}  // namespace kel
