#include "ServerClient/Meeting/Event/MeetingsEventHandler.h"

namespace kel {

MeetingsEventHandler::MeetingsEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                           rx::SchedulerPtr scheduler)
    : DomainEventHandler(std::move(kelEventHandler), std::move(scheduler)),
      newMeeting_(records<Meeting>(DomainEvent::meetings, "POST")),
      meetingDeleted_(eventsThrough(DomainEvent::meetings, {"DELETE"},
                                    [](const rx::Observable<KelEvent>& events) {
                                      return events.map([](const KelEvent&) { return rx::Unit{}; });
                                    })),
      meetingUpdated_(records<Meeting>(DomainEvent::meetings, "PUT")) {}

}  // namespace kel
