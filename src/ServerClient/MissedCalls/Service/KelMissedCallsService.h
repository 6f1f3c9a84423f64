#pragma once

#include "ServerClient/Client/SocketService.h"
#include "ServerClient/MissedCalls/Service/MissedCallsService.h"

namespace kel {

/// Missed calls over the socket (body `{}`):
/// - getMissedCalls({u}): `GET /missedCalls/<u>`; a MissedCallsDTO.
/// - setReadMissedCalls({u, c}): `POST /missedCalls/<u>/read?last=<c>`.
///
/// The user id goes into the path as it is; the call id is percent-encoded in the query.
/// Threads, errors and disposal: see MissedCallsService.
class KelMissedCallsService : public SocketService, public MissedCallsService {
 public:
  /// The server resources this service addresses (see pathTable).
  enum class Path { missedCalls, missedCallsRead };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>(
        {{Path::missedCalls, "/missedCalls"}, {Path::missedCallsRead, "/missedCalls/:id/read"}});
  }

  /// A service that sends through whichever client `socketClient` holds at each request; made
  /// with std::make_shared (see SocketService).
  explicit KelMissedCallsService(SocketClientSlot socketClient);

  rx::Single<MissedCallsDTO> getMissedCalls(const MissedCallsRequest& request) override;
  rx::Completable setReadMissedCalls(const MissedCallsReadRequest& request) override;
};

}  // namespace kel
