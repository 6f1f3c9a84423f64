#pragma once

#include "ServerClient/Presence/Model/PresenceDTO.h"
#include "ServerClient/Socket/Events/DomainEventHandler.h"

namespace kel {

/// The server's presence changes ("/presence", PUT) of the addresses the user subscribed to.
/// Feed them to CachePresencesService::updateCache to keep the cache current.
///
/// The stream delivers on the handler's scheduler (the application's main thread unless another
/// was given) and starts listening only once that scheduler has run the subscription; events are
/// not replayed. A body that does not decode as PresenceDTO ends that subscriber's stream with
/// GenericError(decoding). The stream completes when the event channel does (at sign-out).
/// Disposing a subscription stops it only; nothing is sent to the server (the presence
/// subscriptions stay). The stream does not depend on the handler object: it goes on after it
/// is destroyed. Thread-safe.
class PresencesEventHandler : public DomainEventHandler {
 public:
  /// Builds the stream over `kelEventHandler`'s event channel. `scheduler` is where it
  /// subscribes and delivers; null means the main-thread scheduler.
  explicit PresencesEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                 rx::SchedulerPtr scheduler = nullptr);

  /// A presence changed: "/presence" PUT events; the record as it is now.
  const rx::Observable<PresenceDTO>& presenceUpdated() const noexcept { return presenceUpdated_; }

 private:
  rx::Observable<PresenceDTO> presenceUpdated_;
};

}  // namespace kel
