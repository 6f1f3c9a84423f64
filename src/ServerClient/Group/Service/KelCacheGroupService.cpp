#include "ServerClient/Group/Service/KelCacheGroupService.h"

#include <utility>

#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/Utils/Description.h"

namespace kel {

KelCacheGroupService::KelCacheGroupService(SocketClientSlot socketClient)
    : KelGroupService(std::move(socketClient)) {}

rx::Single<std::vector<GroupDTO>> KelCacheGroupService::groups(bool userIsParticipanting,
                                                               bool fromCache) {
  if (fromCache) {
    std::lock_guard lock(mutex_);
    if (!groups_.empty()) {
      KEL_LOG_DEBUG("groups(userIsParticipanting:fromCache:)",
                    "Groups from cache: " + textForm(groups_));
      std::vector<GroupDTO> cached;
      for (const auto& [id, group] : groups_) cached.push_back(group);
      return rx::Single<std::vector<GroupDTO>>::just(std::move(cached));
    }
  }
  return groups(userIsParticipanting)
      .map([weak = weakSelf(this)](const std::vector<GroupDTO>& groups) {
        if (auto self = weak.lock()) {
          for (const auto& group : groups) self->updateCache(group);
        }
        return groups;
      });
}

rx::Single<GroupDTO> KelCacheGroupService::group(const std::string& groupId, bool fromCache) {
  if (fromCache) {
    std::lock_guard lock(mutex_);
    auto cached = groups_.find(groupId);
    if (cached != groups_.end()) {
      KEL_LOG_DEBUG("group(with:fromCache:)", "Group from cache: " + description(cached->second));
      return rx::Single<GroupDTO>::just(cached->second);
    }
  }
  return group(groupId).map([weak = weakSelf(this)](const GroupDTO& group) {
    if (auto self = weak.lock()) self->updateCache(group);
    return group;
  });
}

GroupDTO KelCacheGroupService::updateCache(const GroupDTO& group) {
  KEL_LOG_VERBOSE("updateCache(_:)", "Group cache updated: " + description(group));
  std::lock_guard lock(mutex_);
  groups_.insert_or_assign(group.groupId, group);
  return group;
}

std::string KelCacheGroupService::deleteCache(const std::string& groupId) {
  std::unique_lock lock(mutex_);
  auto cached = groups_.find(groupId);
  if (cached == groups_.end()) {
    lock.unlock();
    KEL_LOG_VERBOSE("deleteCache(_:)", "Group cache NOT deleted: " + groupId);
    return groupId;
  }
  KEL_LOG_VERBOSE("deleteCache(_:)", "Group cache deleted: " + description(cached->second));
  groups_.erase(cached);
  return groupId;
}

template <class Change>
void KelCacheGroupService::changeCached(const std::string& groupId, const char* function,
                                        const char* message, Change change) {
  std::lock_guard lock(mutex_);
  auto cached = groups_.find(groupId);
  if (cached == groups_.end()) return;
  change(cached->second);
  KEL_LOG_VERBOSE(function, message + description(cached->second));
}

rx::Completable KelCacheGroupService::changeRingingStrategy(const std::string& groupId,
                                                            const RingingStrategyDTO& strategy) {
  return KelGroupService::changeRingingStrategy(groupId, strategy)
      .doOnCompleted([weak = weakSelf(this), groupId, strategy] {
        if (auto self = weak.lock()) {
          self->changeCached(groupId, "changeRingingStrategy(groupId:to:)",
                             "Group RingingStrategy cache updated: ", [&](GroupDTO& group) {
                               group.ringingStrategy = strategy;
                             });
        }
      });
}

rx::Completable KelCacheGroupService::reorderParticipants(
    const std::string& groupId, const std::vector<std::string>& participants) {
  return KelGroupService::reorderParticipants(groupId, participants)
      .doOnCompleted([weak = weakSelf(this), groupId, participants] {
        if (auto self = weak.lock()) {
          self->changeCached(groupId, "reorderParticipants(groupId:participants:)",
                             "Group Participants cache updated: ", [&](GroupDTO& group) {
                               group.participants = participants;
                             });
        }
      });
}

std::map<std::string, GroupDTO> KelCacheGroupService::cachedGroups() const {
  std::lock_guard lock(mutex_);
  return groups_;
}

}  // namespace kel
