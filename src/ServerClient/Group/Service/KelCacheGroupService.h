#pragma once

#include <map>
#include <mutex>
#include <string>

#include "ServerClient/Group/Service/KelGroupService.h"

namespace kel {

/// Groups with the cache the facade hands out. The cache starts empty, is never persisted, and
/// a group leaves it only through deleteCache. Besides the reads, only changeRingingStrategy and
/// reorderParticipants touch it: once the server has accepted the change, and only for a group
/// already cached. Every other change (createGroup, add, leave, ...) reaches the cache only
/// through the group events the application feeds to updateCache and deleteCache. The cache
/// lives as long as the service: a sign-out that drops the services drops it.
///
/// Thread safety: the cache is written from the network thread (answers) and from callers'
/// threads (updateCache, deleteCache); one mutex guards it and is never held while a stream emits
/// or a request is sent, so every member may be called from any thread.
class KelCacheGroupService : public KelGroupService, public CacheGroupService {
 public:
  /// A service with an empty cache that sends through whichever client `socketClient` holds at
  /// each request. Make it with std::make_shared: otherwise server answers are not cached.
  explicit KelCacheGroupService(SocketClientSlot socketClient);

  using KelGroupService::group;
  using KelGroupService::groups;
  rx::Single<std::vector<GroupDTO>> groups(bool userIsParticipanting, bool fromCache) override;
  rx::Single<GroupDTO> group(const std::string& groupId, bool fromCache) override;
  GroupDTO updateCache(const GroupDTO& group) override;
  std::string deleteCache(const std::string& groupId) override;
  /// Sets the strategy; once the server has answered, the cached group (if any) takes it too.
  rx::Completable changeRingingStrategy(const std::string& groupId,
                                        const RingingStrategyDTO& strategy) override;
  /// Reorders the participants; once the server has answered, the cached group (if any) takes
  /// the new order too.
  rx::Completable reorderParticipants(const std::string& groupId,
                                      const std::vector<std::string>& participants) override;

  /// A copy of the cache, by group id, taken under the cache's lock.
  std::map<std::string, GroupDTO> cachedGroups() const;

 private:
  /// Applies `change` to the cached group `groupId`, if there is one, and logs `message` as
  /// written by `function`.
  template <class Change>
  void changeCached(const std::string& groupId, const char* function, const char* message,
                    Change change);

  mutable std::mutex mutex_;  // guards groups_
  std::map<std::string, GroupDTO> groups_;
};

}  // namespace kel
