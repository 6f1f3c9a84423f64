#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ServerClient/Group/Model/GroupDTO.h"
#include "ServerClient/rx/Completable.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// The user's groups: creating and deleting them, their participants, their ringing strategy.
///
/// Each operation sends one request when subscribed (again at every further subscription) and
/// never retries; a Completable completes once the server answered, whatever the answer holds.
/// Results arrive on the socket client's thread, which must not be blocked; a failure found
/// before sending arrives at once on the subscribing thread. Errors, all SDKError:
/// - ConnectionError `noSocketClient`: not signed in, or the socket is not authenticated;
///   nothing is sent;
/// - ConnectionError `timeout` (code -1): no answer within 20 s;
/// - ConnectionError mapped from the server's error code (ConnectionError::mapToOvError);
/// - GenericError `decoding`: an answer that is not a group, or a list of them, where one is
///   expected;
/// - GenericError `underlying`: the socket was stopped (sign-out) while the request was pending
///   (createGroup then completes without a group instead); this one arrives on the thread that
///   stopped it.
///
/// Ids go into the paths as they are, not percent-encoded. Disposing the subscription before
/// the answer forgets the request: the answer is dropped, but the server may still make the
/// change. Every member may be called from any thread.
class GroupService {
 public:
  /// Destroying a service does not end the requests already made through it.
  virtual ~GroupService() = default;

  /// Creates a group owned by the user, under `groupId` when given (the server picks one
  /// otherwise). Emits the group the server answers, then completes.
  virtual rx::Observable<GroupDTO> createGroup(const std::string& name,
                                               const std::optional<std::string>& groupId) = 0;
  /// Deletes the group.
  virtual rx::Completable deleteGroup(const std::string& groupId) = 0;
  /// Adds the user `userId` to the group's participants.
  virtual rx::Completable add(const std::string& userId, const std::string& groupId) = 0;
  /// Removes the user `userId` from the group's participants.
  virtual rx::Completable remove(const std::string& userId, const std::string& groupId) = 0;
  /// Removes every participant from the group.
  virtual rx::Completable removeAllUsers(const std::string& groupId) = 0;
  /// Takes the signed-in user out of every group they take part in.
  virtual rx::Completable leaveAllGroups() = 0;
  /// Takes the signed-in user out of the group's participants.
  virtual rx::Completable leave(const std::string& groupId) = 0;
  /// True for a member; false when the server says the user is not one (ConnectionError
  /// notFound); every other failure, a time-out included, is passed on.
  virtual rx::Single<bool> user(const std::string& userId, const std::string& groupId) = 0;
  /// The groups the user takes part in (true) or the others the user can see (false).
  virtual rx::Single<std::vector<GroupDTO>> groups(bool userIsParticipanting) = 0;
  /// The group `groupId`.
  virtual rx::Single<GroupDTO> group(const std::string& groupId) = 0;
  /// Sets how a call to the group rings its participants.
  virtual rx::Completable changeRingingStrategy(const std::string& groupId,
                                                const RingingStrategyDTO& strategy) = 0;
  /// Puts the group's participants in the order of `participants`, which names the same users.
  virtual rx::Completable reorderParticipants(const std::string& groupId,
                                              const std::vector<std::string>& participants) = 0;
};

/// Groups with an in-memory cache by group id. The application keeps it in step with the group
/// events (GroupEventHandler) through updateCache and deleteCache. Answers served from the cache
/// arrive at once on the subscribing thread; the rest is as for GroupService.
class CacheGroupService : public virtual GroupService {
 public:
  using GroupService::group;
  using GroupService::groups;

  /// With `fromCache` and a cache holding any group: every cached group, whatever
  /// `userIsParticipanting` says, without a request, in the order of their ids. Otherwise the
  /// server's answer, each group of it cached on the way (replacing the cached one).
  virtual rx::Single<std::vector<GroupDTO>> groups(bool userIsParticipanting, bool fromCache) = 0;
  /// With `fromCache` and that group cached: the cached group. Otherwise the server's, cached.
  virtual rx::Single<GroupDTO> group(const std::string& groupId, bool fromCache) = 0;
  /// Stores the group under its id, replacing the one cached there (for
  /// GroupEventHandler::newGroup and groupUpdated). Returns it.
  virtual GroupDTO updateCache(const GroupDTO& group) = 0;
  /// Removes the group `groupId` from the cache, if it is there (for
  /// GroupEventHandler::groupDeleted and groupDidRemoveParticipant). Takes and returns a group
  /// id.
  virtual std::string deleteCache(const std::string& groupId) = 0;
};

}  // namespace kel
