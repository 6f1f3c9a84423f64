#pragma once

#include "ServerClient/ConferenceLog/Model/ConferenceEntry.h"
#include "ServerClient/Socket/Events/DomainEventHandler.h"

namespace kel {

/// The server's new conference-log entries ("/conferences", POST).
///
/// The stream delivers on the handler's scheduler (the application's main thread unless another
/// was given) and starts listening only once that scheduler has run the subscription; events are
/// not replayed. A body that does not decode as ConferenceEntry ends that subscriber's stream
/// with GenericError(decoding). The stream completes when the event channel does (at sign-out).
/// Disposing a subscription stops it only; nothing is sent to the server. The stream does not
/// depend on the handler object: it goes on after it is destroyed. Thread-safe.
class ConferenceLogEventHandler : public DomainEventHandler {
 public:
  /// Builds the stream over `kelEventHandler`'s event channel. `scheduler` is where it
  /// subscribes and delivers; null means the main-thread scheduler.
  explicit ConferenceLogEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                     rx::SchedulerPtr scheduler = nullptr);

  /// A conference added to the user's log: "/conferences" POST events.
  const rx::Observable<ConferenceEntry>& newConferenceEntry() const noexcept {
    return newConferenceEntry_;
  }

 private:
  rx::Observable<ConferenceEntry> newConferenceEntry_;
};

}  // namespace kel
