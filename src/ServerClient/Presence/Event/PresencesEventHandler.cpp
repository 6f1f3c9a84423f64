#include "ServerClient/Presence/Event/PresencesEventHandler.h"

#include <nlohmann/json.hpp>

namespace kel {

PresencesEventHandler::PresencesEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                             rx::SchedulerPtr scheduler)
    : DomainEventHandler(std::move(kelEventHandler), std::move(scheduler)),
      presenceUpdated_(records<PresenceDTO>(DomainEvent::presence, "PUT")) {}

}  // namespace kel
