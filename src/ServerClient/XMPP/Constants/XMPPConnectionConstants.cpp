#include "ServerClient/XMPP/Constants/XMPPConnectionConstants.h"

#include "ServerClient/rx/Schedulers.h"

namespace kel {

const rx::SchedulerPtr& XMPPConnectionConstants::scheduler() {
  static const rx::SchedulerPtr shared =
      std::make_shared<rx::SerialDispatchQueueScheduler>("rx.global_dispatch_queue.serial");
  return shared;
}

}  // namespace kel
