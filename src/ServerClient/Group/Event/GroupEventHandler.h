#pragma once

#include <string>

#include "ServerClient/Group/Model/GroupDTO.h"
#include "ServerClient/Socket/Events/DomainEventHandler.h"

namespace kel {

/// The server's group events: "/usersGroup" POST (a new group), PUT (a changed one) and DELETE
/// (its id), and "/usersGroup/participant" DELETE (the id of a group the user was removed from).
/// An id comes from the event's body {"groupId": ...}; a body that is not an object of texts
/// only, or has no "groupId", is dropped without a word. Feed them to
/// CacheGroupService::updateCache and deleteCache to keep the cache current.
///
/// Each stream delivers on the handler's scheduler (the application's main thread unless
/// another was given) and starts listening only once that scheduler has run the subscription;
/// events are not replayed. A group body that does not decode as GroupDTO, or an id event whose
/// body is not JSON at all, ends that subscriber's stream with GenericError(decoding). Every
/// stream completes when the event channel does (at sign-out). Disposing a subscription stops
/// it only; nothing is sent to the server. The streams do not depend on the handler object:
/// they go on after it is destroyed. Thread-safe.
class GroupEventHandler : public DomainEventHandler {
 public:
  /// Builds the streams over `kelEventHandler`'s event channel. `scheduler` is where they
  /// subscribe and deliver; null means the main-thread scheduler.
  explicit GroupEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                             rx::SchedulerPtr scheduler = nullptr);

  /// A group created, or the user added to one: "/usersGroup" POST events.
  const rx::Observable<GroupDTO>& newGroup() const noexcept { return newGroup_; }
  /// A group changed: "/usersGroup" PUT events; the group as it is now.
  const rx::Observable<GroupDTO>& groupUpdated() const noexcept { return groupUpdated_; }
  /// The id of a group deleted: "/usersGroup" DELETE events.
  const rx::Observable<std::string>& groupDeleted() const noexcept { return groupDeleted_; }
  /// The id of a group the user no longer takes part in: "/usersGroup/participant" DELETE
  /// events.
  const rx::Observable<std::string>& groupDidRemoveParticipant() const noexcept {
    return groupDidRemoveParticipant_;
  }

 private:
  rx::Observable<std::string> groupIds(DomainEvent domain) const;

  rx::Observable<GroupDTO> newGroup_;
  rx::Observable<GroupDTO> groupUpdated_;
  rx::Observable<std::string> groupDeleted_;
  rx::Observable<std::string> groupDidRemoveParticipant_;
};

}  // namespace kel
