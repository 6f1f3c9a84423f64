#include "ServerClient/ConferenceLog/Event/ConferenceLogEventHandler.h"

namespace kel {

ConferenceLogEventHandler::ConferenceLogEventHandler(
    std::shared_ptr<KelEventHandler> kelEventHandler, rx::SchedulerPtr scheduler)
    : DomainEventHandler(std::move(kelEventHandler), std::move(scheduler)),
      newConferenceEntry_(records<ConferenceEntry>(DomainEvent::conferences, "POST")) {}

}  // namespace kel
