#include "ServerClient/Socket/Events/DomainEventHandler.h"

#include <algorithm>

#include "ServerClient/rx/Schedulers.h"

namespace kel {

DomainEventHandler::DomainEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                       rx::SchedulerPtr scheduler)
    : kelEventHandler_(std::move(kelEventHandler)),
      scheduler_(scheduler ? std::move(scheduler) : rx::MainScheduler::instance()) {}

rx::Observable<KelEvent> DomainEventHandler::channelEvents(DomainEvent domain,
                                                           std::vector<std::string> methods) const {
  return kelEventHandler_->eventChannel()
      .subscribeOn(scheduler_)
      .filter([domain, methods = std::move(methods)](const KelEvent& event) {
        return event.domainEvent == domain &&
               std::find(methods.begin(), methods.end(), event.method) != methods.end();
      });
}

}  // namespace kel
