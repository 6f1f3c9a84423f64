#pragma once

#include "ServerClient/Client/SocketService.h"
#include "ServerClient/MissedCalls/Service/MissedCallsService.h"

namespace kel {

/// Missed calls over the socket (body {}):
///   getMissedCalls({u})          GET  "/missedCalls/<u>"          -> MissedCallsDTO
///   setReadMissedCalls({u, c})   POST "/missedCalls/<u>/read?last=<c>"
class KelMissedCallsService : public SocketService, public MissedCallsService {
 public:
  enum class Path { missedCalls, missedCallsRead };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>(
        {{Path::missedCalls, "/missedCalls"}, {Path::missedCallsRead, "/missedCalls/:id/read"}});
  }

  explicit KelMissedCallsService(SocketClientSlot socketClient);

  rx::Single<MissedCallsDTO> getMissedCalls(const MissedCallsRequest& request) override;
  rx::Completable setReadMissedCalls(const MissedCallsReadRequest& request) override;
};

}  // namespace kel
