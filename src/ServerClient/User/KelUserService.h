#pragma once

#include "ServerClient/Client/SocketService.h"
#include "ServerClient/User/UserService.h"

namespace kel {

/// The user domain over the socket:
///   user(id)            GET "/users/<id>", body {}        -> the response decoded as User
///   update(user)        PUT "/users/<user.userId>", body the encoded user -> each response as User
///   fetchCapabilities() GET "capabilities", body {}       -> the response decoded as Capabilities
/// Failures are the socket layer's, or GenericError(decoding) for a response that is not the
/// record; update fails with GenericError(encoding) without sending when the user cannot be
/// encoded.
class KelUserService : public SocketService, public UserService {
 public:
  /// The resources: users is "/users", capabilities "capabilities". The server speaks of
  /// capabilities without a leading slash; it is sent as such.
  enum class Path { users, capabilities };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({{Path::users, "/users"}, {Path::capabilities, "capabilities"}});
  }

  /// A service that sends through the client in `socketClient`; the facade makes it.
  explicit KelUserService(SocketClientSlot socketClient);

  rx::Single<User> user(const std::string& id) override;
  rx::Observable<User> update(const User& user) override;
  rx::Single<std::shared_ptr<const Capabilities>> fetchCapabilities() override;
};

}  // namespace kel
