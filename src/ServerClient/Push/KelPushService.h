#pragma once

#include "ServerClient/Client/SocketService.h"
#include "ServerClient/Push/PushService.h"

namespace kel {

/// Push registration over the socket, both on "/pushNotifications":
///
///     sendPushToken   POST   {"deviceId": ..., "tokenType": "apn", "token": ...,
///                             "options": {"isProduction": true or false}}
///     deletePushToken DELETE {"deviceId": ...}
///
/// The response content is not read; failures are the socket layer's.
class KelPushService : public SocketService, public PushService {
 public:
  /// The one resource, "/pushNotifications".
  enum class Path { push };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({{Path::push, "/pushNotifications"}});
  }

  /// The only token kind the server is told about.
  static constexpr std::string_view kTokenType = "apn";

  /// A service that sends through the client in `socketClient`; the facade makes it.
  explicit KelPushService(SocketClientSlot socketClient);

  rx::Single<rx::Unit> sendPushToken(const std::string& token, bool production,
                                     const std::string& deviceId) override;
  rx::Single<rx::Unit> deletePushToken(const std::string& deviceId) override;
};

}  // namespace kel
