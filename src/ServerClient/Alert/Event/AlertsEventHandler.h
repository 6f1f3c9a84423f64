#pragma once

#include "ServerClient/Alert/Model/ServerAlert.h"
#include "ServerClient/Socket/Events/DomainEventHandler.h"

namespace kel {

/// The server's alert events on "/alerts": POST (a new alert) and PUT or DELETE (a changed or
/// ended one; both carry the full alert and arrive on updatedAlert, in the order sent).
///
/// Each stream delivers on the handler's scheduler (the application's main thread unless
/// another was given) and starts listening only once that scheduler has run the subscription;
/// events are not replayed. A body that does not decode as ServerAlert ends that subscriber's
/// stream with GenericError(decoding). Every stream completes when the event channel does (at
/// sign-out). Disposing a subscription stops it only; nothing is sent to the server. The streams
/// do not depend on the handler object: they go on after it is destroyed. Thread-safe.
class AlertsEventHandler : public DomainEventHandler {
 public:
  /// Builds the streams over `kelEventHandler`'s event channel. `scheduler` is where they
  /// subscribe and deliver; null means the main-thread scheduler.
  explicit AlertsEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                              rx::SchedulerPtr scheduler = nullptr);

  /// An alert raised: "/alerts" POST events.
  const rx::Observable<ServerAlert>& newAlert() const noexcept { return newAlert_; }
  /// An alert changed or ended (accepted, cancelled, expired): "/alerts" PUT and DELETE events,
  /// as one stream.
  const rx::Observable<ServerAlert>& updatedAlert() const noexcept { return updatedAlert_; }

 private:
  rx::Observable<ServerAlert> newAlert_;
  rx::Observable<ServerAlert> updatedAlert_;
};

}  // namespace kel
