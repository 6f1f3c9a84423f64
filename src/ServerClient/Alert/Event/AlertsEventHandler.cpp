#include "ServerClient/Alert/Event/AlertsEventHandler.h"

namespace kel {

AlertsEventHandler::AlertsEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                       rx::SchedulerPtr scheduler)
    : DomainEventHandler(std::move(kelEventHandler), std::move(scheduler)),
      newAlert_(records<ServerAlert>(DomainEvent::alerts, "POST")),
      updatedAlert_(eventsThrough(DomainEvent::alerts, {"PUT", "DELETE"},
                                  [](const rx::Observable<KelEvent>& events) {
                                    return events.map(&decode<ServerAlert>);
                                  })) {}

}  // namespace kel
