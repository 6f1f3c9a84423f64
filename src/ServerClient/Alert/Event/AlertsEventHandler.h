#pragma once

#include "ServerClient/Alert/Model/ServerAlert.h"
#include "ServerClient/Socket/Events/DomainEventHandler.h"

namespace kel {

/// The server's alert events on "/alerts": POST (a new alert) and PUT or DELETE (a changed or
/// ended one; both carry the full alert and arrive on updatedAlert, in the order sent).
class AlertsEventHandler : public DomainEventHandler {
 public:
  explicit AlertsEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                              rx::SchedulerPtr scheduler = nullptr);

  const rx::Observable<ServerAlert>& newAlert() const noexcept { return newAlert_; }
  const rx::Observable<ServerAlert>& updatedAlert() const noexcept { return updatedAlert_; }

 private:
  rx::Observable<ServerAlert> newAlert_;
  rx::Observable<ServerAlert> updatedAlert_;
};

}  // namespace kel
