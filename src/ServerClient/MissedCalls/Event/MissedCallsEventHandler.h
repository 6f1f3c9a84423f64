#pragma once

#include "ServerClient/MissedCalls/Model/MissedCallsDTO.h"
#include "ServerClient/Socket/Events/DomainEventHandler.h"

namespace kel {

/// The server's new missed calls ("/missedCalls", PUT).
class MissedCallsEventHandler : public DomainEventHandler {
 public:
  explicit MissedCallsEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                   rx::SchedulerPtr scheduler = nullptr);

  const rx::Observable<MissedCallsSocketDTO>& newMissedCalls() const noexcept {
    return newMissedCalls_;
  }

 private:
  rx::Observable<MissedCallsSocketDTO> newMissedCalls_;
};

}  // namespace kel
