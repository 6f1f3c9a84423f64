#pragma once

#include "ServerClient/AddressBooks/Service/AddressBooksService.h"
#include "ServerClient/Client/SocketService.h"

namespace kel {

/// Address books over the socket:
///   addressBooks(types)  GET "/addressbooks?<type>=true&..." (no query for no types), body [];
///                        the answer's "addressBooks" list decoded as AddressBookDTO
///   contact(types, user) addressBooks(types), then the first contact whose associatedUserId is
///                        `user`, walking books and contacts in the server's order
class KelAddressBooksService : public SocketService, public virtual AddressBooksService {
 public:
  enum class Path { addressBooks };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({{Path::addressBooks, "/addressbooks"}});
  }

  explicit KelAddressBooksService(SocketClientSlot socketClient);

  rx::Single<std::vector<AddressBookDTO>> addressBooks(
      const std::vector<std::string>& types) override;
  rx::Single<std::optional<Contact>> contact(const std::vector<std::string>& types,
                                             const std::string& userId) override;
};

}  // namespace kel
