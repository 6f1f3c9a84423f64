#pragma once

#include "ServerClient/Client/SocketService.h"
#include "ServerClient/Presence/Service/PresencesService.h"

namespace kel {

/// Presence over the socket:
/// - subscribe(address): `POST /presence`, body `{"address": address}`; a PresenceDTO.
/// - subscribe(addresses): `POST /batch/presence`, body the list of addresses; a list of
///   PresenceDTO.
/// - presence(address, a): `GET /presence/<path form>?withoutAvatar=<a>`, body `{}`, the path
///   form being presencePathAddress(address); a PresenceDTO.
/// - update(request): `PUT /presence/<request.address>`, body request.toDictionary(), time-out
///   kUpdateTimeout; a PresenceDTO.
///
/// Addresses go into the path as they are, not percent-encoded. Threads, errors and disposal:
/// see PresencesService.
class KelPresencesService : public SocketService, public PresencesService {
 public:
  /// The server resources this service addresses (see pathTable).
  enum class Path { presence, batchPresence };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>(
        {{Path::presence, "/presence"}, {Path::batchPresence, "/batch/presence"}});
  }

  /// The time-out of update: the user is waiting to see their own change.
  static constexpr std::chrono::seconds kUpdateTimeout{10};

  /// A service that sends through whichever client `socketClient` holds at each request; made
  /// with std::make_shared (see SocketService), except as KelCachePresencesService's member.
  explicit KelPresencesService(SocketClientSlot socketClient);

  rx::Single<PresenceDTO> subscribe(const std::string& address) override;
  rx::Single<std::vector<PresenceDTO>> subscribe(
      const std::vector<std::string>& addresses) override;
  rx::Single<PresenceDTO> presence(const std::string& address, bool avatar = true) override;
  rx::Single<PresenceDTO> update(const PresenceUpdateRequest& request) override;
};

}  // namespace kel
