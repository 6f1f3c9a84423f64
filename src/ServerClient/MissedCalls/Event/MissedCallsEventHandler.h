#pragma once

#include "ServerClient/MissedCalls/Model/MissedCallsDTO.h"
#include "ServerClient/Socket/Events/DomainEventHandler.h"

namespace kel {

/// The server's new missed calls ("/missedCalls", PUT).
///
/// The stream delivers on the handler's scheduler (the application's main thread unless another
/// was given) and starts listening only once that scheduler has run the subscription; events are
/// not replayed. A body that does not decode as MissedCallsSocketDTO ends that subscriber's
/// stream with GenericError(decoding). The stream completes when the event channel does (at
/// sign-out). Disposing a subscription stops it only; nothing is sent to the server. The stream
/// does not depend on the handler object: it goes on after it is destroyed. Thread-safe.
class MissedCallsEventHandler : public DomainEventHandler {
 public:
  /// Builds the stream over `kelEventHandler`'s event channel. `scheduler` is where it
  /// subscribes and delivers; null means the main-thread scheduler.
  explicit MissedCallsEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                   rx::SchedulerPtr scheduler = nullptr);

  /// Calls the user has just missed: "/missedCalls" PUT events.
  const rx::Observable<MissedCallsSocketDTO>& newMissedCalls() const noexcept {
    return newMissedCalls_;
  }

 private:
  rx::Observable<MissedCallsSocketDTO> newMissedCalls_;
};

}  // namespace kel
