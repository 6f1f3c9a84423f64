#pragma once

#include "ServerClient/Client/SocketService.h"
#include "ServerClient/ConferenceLog/Service/ConferenceLogService.h"

namespace kel {

/// The conference log over the socket:
/// - conferencesEntries(before, after, limit, desc): `GET /conferences?<query>`, body `{}`;
///   the answer is the list of ConferenceEntry.
///
/// The query holds "limit", "createdAtBefore" and "createdAtSince" (whole milliseconds since the
/// epoch, truncated toward zero, only when given) and "sortBy" ("createdAt.desc" or
/// "createdAt.asc"). The provider hands this service out only to users with the call-history
/// capability. Threads, errors and disposal: see ConferenceLogService.
class KelConferenceLogService : public SocketService, public ConferenceLogService {
 public:
  /// The server resource this service addresses (see pathTable).
  enum class Path { conferences };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({{Path::conferences, "/conferences"}});
  }

  /// A service that sends through whichever client `socketClient` holds at each request; made
  /// with std::make_shared (see SocketService).
  explicit KelConferenceLogService(SocketClientSlot socketClient);

  rx::Observable<std::vector<ConferenceEntry>> conferencesEntries(
      std::optional<std::chrono::system_clock::time_point> before,
      std::optional<std::chrono::system_clock::time_point> after, int limit,
      bool sortDescending) override;
};

}  // namespace kel
