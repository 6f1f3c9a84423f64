#pragma once

#include "ServerClient/AddressBooks/Service/AddressBooksService.h"
#include "ServerClient/Client/SocketService.h"

namespace kel {

/// Address books over the socket:
/// - addressBooks(types): `GET /addressbooks?<type>=true&...` (no query for no types, the types
///   in byte order), body `[]`; the answer's "addressBooks" list decoded as AddressBookDTO.
/// - contact(types, user): addressBooks(types), then the first contact whose associatedUserId is
///   `user`, walking books and contacts in the server's order.
///
/// Threads, errors and disposal: see AddressBooksService. Made with std::make_shared (see
/// SocketService); every member may be called from any thread.
class KelAddressBooksService : public SocketService, public virtual AddressBooksService {
 public:
  /// The server resource this service addresses (see pathTable).
  enum class Path { addressBooks };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({{Path::addressBooks, "/addressbooks"}});
  }

  /// A service that sends through whichever client `socketClient` holds at each request.
  explicit KelAddressBooksService(SocketClientSlot socketClient);

  rx::Single<std::vector<AddressBookDTO>> addressBooks(
      const std::vector<std::string>& types) override;
  rx::Single<std::optional<Contact>> contact(const std::vector<std::string>& types,
                                             const std::string& userId) override;
};

}  // namespace kel
