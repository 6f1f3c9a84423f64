#include "ServerClient/Alert/Event/AlertsEventHandler.h"

namespace kel {

AlertsEventHandler::AlertsEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                       rx::SchedulerPtr scheduler)
    : DomainEventHandler(std::move(kelEventHandler), std::move(scheduler)),
      newAlert_(records<ServerAlert>(DomainEvent::alerts, "POST")),
      updatedAlert_(
          eventsWithMethods(DomainEvent::alerts, {"PUT", "DELETE"}).map([](const KelEvent& event) {
            return from<ServerAlert>(event.data);
          })) {}

}  // namespace kel
