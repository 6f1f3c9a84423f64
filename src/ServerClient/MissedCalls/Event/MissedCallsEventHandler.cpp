#include "ServerClient/MissedCalls/Event/MissedCallsEventHandler.h"

namespace kel {

MissedCallsEventHandler::MissedCallsEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                                 rx::SchedulerPtr scheduler)
    : DomainEventHandler(std::move(kelEventHandler), std::move(scheduler)),
      newMissedCalls_(records<MissedCallsSocketDTO>(DomainEvent::missedCalls, "PUT")) {}

}  // namespace kel
