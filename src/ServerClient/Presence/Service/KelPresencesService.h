#pragma once

#include "ServerClient/Client/SocketService.h"
#include "ServerClient/Presence/Service/PresencesService.h"

namespace kel {

/// Presence over the socket:
///   subscribe(address)    POST "/presence", body {"address": address}  -> PresenceDTO
///   subscribe(addresses)  POST "/batch/presence", body [addresses]      -> list of PresenceDTO
///   presence(address, a)  GET "/presence/<path form>?withoutAvatar=<a>", body {} -> PresenceDTO
///   update(request)       PUT "/presence/<request.address>", body request.toDictionary(),
///                         10 s time-out                                 -> PresenceDTO
class KelPresencesService : public SocketService, public PresencesService {
 public:
  enum class Path { presence, batchPresence };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>(
        {{Path::presence, "/presence"}, {Path::batchPresence, "/batch/presence"}});
  }

  /// The time-out of update: the user is waiting to see their own change.
  static constexpr std::chrono::seconds kUpdateTimeout{10};

  explicit KelPresencesService(SocketClientSlot socketClient);

  rx::Single<PresenceDTO> subscribe(const std::string& address) override;
  rx::Single<std::vector<PresenceDTO>> subscribe(
      const std::vector<std::string>& addresses) override;
  rx::Single<PresenceDTO> presence(const std::string& address, bool avatar = true) override;
  rx::Single<PresenceDTO> update(const PresenceUpdateRequest& request) override;
};

}  // namespace kel
