#pragma once

#include <string>

#include "ServerClient/rx/Single.h"

namespace kel {

/// Registers the device's push-notification token with the server, and removes it at sign-out.
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
