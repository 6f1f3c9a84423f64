#pragma once

#include "ServerClient/Client/SocketService.h"
#include "ServerClient/Contact/Service/UserContactsService.h"

namespace kel {

/// The user's contacts over the socket:
///   add(contact)           POST   "userContacts"        body the encoded contact
///   update(contact)        PUT    "userContacts/<id>"   body the encoded contact
///   deleteContact(contact) DELETE "userContacts/<id>"   body {}
/// The server answers a change it accepted with an empty body; any other answer is its error
/// message and fails the operation with GenericError(invalidResponse) carrying that text. add and
/// update fail with GenericError(encoding) without sending when the contact cannot be encoded.
class KelUserContactsService : public SocketService, public UserContactsService {
 public:
  /// The server names this resource without a leading slash.
  enum class Path { userContacts };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({{Path::userContacts, "userContacts"}});
  }

  explicit KelUserContactsService(SocketClientSlot socketClient);

  rx::Single<rx::Unit> add(const Contact& contact) override;
  rx::Single<rx::Unit> update(const Contact& contact) override;
  rx::Single<rx::Unit> deleteContact(const Contact& contact) override;
};

}  // namespace kel
