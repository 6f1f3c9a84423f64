#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ServerClient/Group/Model/GroupDTO.h"
#include "ServerClient/rx/Completable.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// The user's groups: each operation sends one request per subscription.
class GroupService {
 public:
  virtual ~GroupService() = default;

  virtual rx::Observable<GroupDTO> createGroup(const std::string& name,
                                               const std::optional<std::string>& groupId) = 0;
  virtual rx::Completable deleteGroup(const std::string& groupId) = 0;
  virtual rx::Completable add(const std::string& userId, const std::string& groupId) = 0;
  virtual rx::Completable remove(const std::string& userId, const std::string& groupId) = 0;
  virtual rx::Completable removeAllUsers(const std::string& groupId) = 0;
  virtual rx::Completable leaveAllGroups() = 0;
  virtual rx::Completable leave(const std::string& groupId) = 0;
  /// True for a member; false when the server says the user is not one (ConnectionError
  /// notFound); every other failure, a time-out included, is passed on.
  virtual rx::Single<bool> user(const std::string& userId, const std::string& groupId) = 0;
  /// The groups the user takes part in (true) or the others the user can see (false).
  virtual rx::Single<std::vector<GroupDTO>> groups(bool userIsParticipanting) = 0;
  virtual rx::Single<GroupDTO> group(const std::string& groupId) = 0;
  virtual rx::Completable changeRingingStrategy(const std::string& groupId,
                                                const RingingStrategyDTO& strategy) = 0;
  virtual rx::Completable reorderParticipants(const std::string& groupId,
                                              const std::vector<std::string>& participants) = 0;
};

/// Groups with an in-memory cache by group id. The application keeps it in step with the group
/// events (GroupEventHandler) through updateCache and deleteCache.
class CacheGroupService : public virtual GroupService {
 public:
  using GroupService::group;
  using GroupService::groups;

  /// With `fromCache` and a cache holding any group: every cached group, whatever
  /// `userIsParticipanting` says, without a request. Otherwise the server's answer, cached.
  virtual rx::Single<std::vector<GroupDTO>> groups(bool userIsParticipanting, bool fromCache) = 0;
  /// With `fromCache` and that group cached: the cached group. Otherwise the server's, cached.
  virtual rx::Single<GroupDTO> group(const std::string& groupId, bool fromCache) = 0;
  virtual GroupDTO updateCache(const GroupDTO& group) = 0;
  /// Takes and returns a group id.
  virtual std::string deleteCache(const std::string& groupId) = 0;
};

}  // namespace kel
