#pragma once

#include "ServerClient/Client/SocketService.h"
#include "ServerClient/Contact/Service/UserContactsService.h"

namespace kel {

/// The user's contacts over the socket:
/// - add(contact): `POST userContacts`, body the encoded contact;
/// - update(contact): `PUT userContacts/<id>`, body the encoded contact;
/// - deleteContact(contact): `DELETE userContacts/<id>`, body `{}`.
///
/// The id goes into the path as it is, not percent-encoded. The server answers a change it
/// accepted with an empty body, which reaches the client as a response whose "body" is a text
/// (or a number, truth value or null); a body that is an object or a list, or no body at all,
/// is taken for its error message and fails the operation with GenericError(invalidResponse)
/// whose description is that body's JSON text ("{}" for no body; empty when not UTF-8). add and
/// update fail with GenericError(encoding) without sending when the contact cannot be encoded.
/// Threads, other errors and disposal: see UserContactsService.
class KelUserContactsService : public SocketService, public UserContactsService {
 public:
  /// The server resource this service addresses (see pathTable). The server names it without a
  /// leading slash.
  enum class Path { userContacts };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({{Path::userContacts, "userContacts"}});
  }

  /// A service that sends through whichever client `socketClient` holds at each request; made
  /// with std::make_shared (see SocketService).
  explicit KelUserContactsService(SocketClientSlot socketClient);

  rx::Single<rx::Unit> add(const Contact& contact) override;
  rx::Single<rx::Unit> update(const Contact& contact) override;
  rx::Single<rx::Unit> deleteContact(const Contact& contact) override;
};

}  // namespace kel
