#pragma once

#include "ServerClient/Client/SocketService.h"
#include "ServerClient/Group/Service/GroupService.h"

namespace kel {

/// Groups over the socket (body `[]` where none is given):
/// - createGroup(name, id): `POST /usersGroup`, body `{"groupId"?, "name"}`; each answer
///   decoded as GroupDTO.
/// - deleteGroup(g): `DELETE /usersGroup/<g>`.
/// - add(u, g), remove(u, g): `POST` or `DELETE /usersGroup/<g>/participants`, body
///   `{"targetUserId": u}`.
/// - removeAllUsers(g): `DELETE /usersGroup/<g>/participants`.
/// - leaveAllGroups(): `DELETE /usersGroups/participations`.
/// - leave(g): `DELETE /usersGroup/<g>//leave` (the server's spelling).
/// - user(u, g): `HEAD /usersGroup/<g>/participants/<u>`; true once answered, false for
///   notFound.
/// - groups(p): `GET /usersGroup?participating=<p>`; a list of GroupDTO.
/// - group(g): `GET /usersGroup/<g>`; a GroupDTO.
/// - changeRingingStrategy(g, s): `PUT /usersGroup/<g>`, body `{"ringingStrategy": {...}}`
///   (encodeRingingStrategy).
/// - reorderParticipants(g, l): `PUT /usersGroup/<g>/participants`, body
///   `{"participants": l}`.
///
/// Completables ignore the answer's content. Threads, errors and disposal: see GroupService.
class KelGroupService : public SocketService, public virtual GroupService {
 public:
  /// The server resources this service addresses (see pathTable).
  enum class Path { groups, groupParticipationsWithId, groupParticipants, participantInGroup };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({{Path::groups, "/usersGroup"},
                                {Path::groupParticipationsWithId, "/usersGroup/:id/participants"},
                                {Path::groupParticipants, "/usersGroups/participations"},
                                {Path::participantInGroup, "/usersGroup/participant"}});
  }

  /// A service that sends through whichever client `socketClient` holds at each request; made
  /// with std::make_shared (see SocketService).
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
