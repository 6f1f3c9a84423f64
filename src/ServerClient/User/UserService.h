#pragma once

#include <memory>
#include <string>

#include "ServerClient/Auth/Model/Capabilities.h"
#include "ServerClient/User/Model/User.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// Reads and updates server users. Each operation builds its request, with a fresh identifier,
/// when called and sends it when the result is subscribed; subscribe to each result once.
class UserService {
 public:
  virtual ~UserService() = default;

  /// The user with identifier `id`.
  virtual rx::Single<User> user(const std::string& id) = 0;
  /// Writes `user` (found by its userId) and yields the user records the server answers with.
  virtual rx::Observable<User> update(const User& user) = 0;
  /// The signed-in user's current capabilities.
  virtual rx::Single<std::shared_ptr<const Capabilities>> fetchCapabilities() = 0;
};

}  // namespace kel
