#pragma once

#include "ServerClient/Presence/Model/PresenceDTO.h"
#include "ServerClient/Socket/Events/DomainEventHandler.h"

namespace kel {

/// The server's presence changes ("/presence", PUT) of the addresses the user subscribed to.
class PresencesEventHandler : public DomainEventHandler {
 public:
  explicit PresencesEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                 rx::SchedulerPtr scheduler = nullptr);

  const rx::Observable<PresenceDTO>& presenceUpdated() const noexcept { return presenceUpdated_; }

 private:
  rx::Observable<PresenceDTO> presenceUpdated_;
};

}  // namespace kel
