#pragma once

#include <string>

#include "ServerClient/rx/Single.h"

namespace kel {

/// Registers the device's push-notification token with the server, and removes it at sign-out
/// (KelServer::pushService(); logout() removes it by itself). Nothing is sent until a result is
/// subscribed. Each result succeeds once the server answered, arriving on the socket's network
/// thread; failures are the socket layer's SDKErrors (ConnectionError(noSocketClient) without an
/// authenticated socket, ConnectionError(timeout, -1) after 20 s, the server's error mapped).
class PushService {
 public:
  virtual ~PushService() = default;

  /// Registers `token` for `deviceId`; `production` tells the production push environment from
  /// the development one.
  virtual rx::Single<rx::Unit> sendPushToken(const std::string& token, bool production,
                                             const std::string& deviceId) = 0;
  /// Removes the registration of `deviceId`.
  virtual rx::Single<rx::Unit> deletePushToken(const std::string& deviceId) = 0;
};

}  // namespace kel
