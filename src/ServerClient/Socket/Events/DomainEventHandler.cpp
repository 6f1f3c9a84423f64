#include "ServerClient/Socket/Events/DomainEventHandler.h"

#include "ServerClient/rx/Schedulers.h"

namespace kel {

DomainEventHandler::DomainEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                       rx::SchedulerPtr scheduler)
    : kelEventHandler_(std::move(kelEventHandler)),
      scheduler_(scheduler ? std::move(scheduler) : rx::MainScheduler::instance()) {}

rx::Observable<KelEvent> DomainEventHandler::events(DomainEvent domain, std::string method) const {
  return kelEventHandler_->eventChannel()
      .subscribeOn(scheduler_)
      .filter([domain, method = std::move(method)](const KelEvent& event) {
        return event.domainEvent == domain && event.method == method;
      })
      .observeOn(scheduler_);
}

rx::Observable<std::string> DomainEventHandler::params(DomainEvent domain,
                                                       std::string method) const {
  return events(domain, std::move(method)).compactMap([](const KelEvent& event) {
    return event.param;
  });
}

}  // namespace kel
