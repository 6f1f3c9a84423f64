#pragma once

#include <memory>
#include <string>

#include "ServerClient/Auth/Model/Capabilities.h"
#include "ServerClient/User/Model/User.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// Reads and updates server users (KelServer::userService()). Nothing is sent until a result is
/// subscribed, and each subscription sends its own request with a fresh identifier. Results
/// arrive on the socket's network thread; disposing before the answer unregisters the request.
/// Failures are SDKErrors: ConnectionError(noSocketClient) without an authenticated socket,
/// ConnectionError(timeout, -1) after 20 s, the server's error mapped to a ConnectionError, or
/// GenericError(decoding) for an answer that is not the record.
class UserService {
 public:
  virtual ~UserService() = default;

  /// The user with identifier `id`; notFound when the server knows none.
  virtual rx::Single<User> user(const std::string& id) = 0;
  /// Writes `user` (found by its userId) and yields the user records the server answers with;
  /// a user that cannot be encoded fails with GenericError(encoding) without sending. The
  /// server may refuse changes to another user (forbidden).
  virtual rx::Observable<User> update(const User& user) = 0;
  /// The signed-in user's current capabilities, as the server has them now (the facade's
  /// validator keeps those of the last sign-in).
  virtual rx::Single<std::shared_ptr<const Capabilities>> fetchCapabilities() = 0;
};

}  // namespace kel
