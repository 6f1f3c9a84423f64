#pragma once

#include <string>

#include "ServerClient/Group/Model/GroupDTO.h"
#include "ServerClient/Socket/Events/DomainEventHandler.h"

namespace kel {

/// The server's group events: "/usersGroup" POST (a new group), PUT (a changed one) and DELETE
/// (its id), and "/usersGroup/participant" DELETE (the id of a group the user was removed from).
/// An id comes from the event's body {"groupId": ...}; a body that is not an object of texts
/// only, or has no "groupId", is dropped without a word.
class GroupEventHandler : public DomainEventHandler {
 public:
  explicit GroupEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                             rx::SchedulerPtr scheduler = nullptr);

  const rx::Observable<GroupDTO>& newGroup() const noexcept { return newGroup_; }
  const rx::Observable<GroupDTO>& groupUpdated() const noexcept { return groupUpdated_; }
  const rx::Observable<std::string>& groupDeleted() const noexcept { return groupDeleted_; }
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
