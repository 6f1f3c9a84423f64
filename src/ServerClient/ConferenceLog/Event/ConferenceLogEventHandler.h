#pragma once

#include "ServerClient/ConferenceLog/Model/ConferenceEntry.h"
#include "ServerClient/Socket/Events/DomainEventHandler.h"

namespace kel {

/// The server's new conference-log entries ("/conferences", POST).
class ConferenceLogEventHandler : public DomainEventHandler {
 public:
  explicit ConferenceLogEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                     rx::SchedulerPtr scheduler = nullptr);

  const rx::Observable<ConferenceEntry>& newConferenceEntry() const noexcept {
    return newConferenceEntry_;
  }

 private:
  rx::Observable<ConferenceEntry> newConferenceEntry_;
};

}  // namespace kel
