#pragma once

#include <map>
#include <mutex>
#include <string>

#include "ServerClient/AddressBooks/Service/KelAddressBooksService.h"

namespace kel {

/// Address books with the cache the facade hands out. The cache starts empty, is never
/// persisted, and books only enter or change (contacts inside them can be removed). It lives as
/// long as the service: a sign-out that drops the services drops it.
///
/// Thread safety: the cache is written from the network thread (answers) and from callers'
/// threads (updateCache, deleteCache); one mutex guards it and is never held while a stream
/// emits or a request is sent, so every member may be called from any thread, also from a
/// subscriber of one of this service's streams.
class KelCacheAddressBooksService : public KelAddressBooksService, public CacheAddressBooksService {
 public:
  /// A service with an empty cache that sends through whichever client `socketClient` holds at
  /// each request. Make it with std::make_shared: otherwise server answers are not cached.
  explicit KelCacheAddressBooksService(SocketClientSlot socketClient);

  using KelAddressBooksService::addressBooks;
  rx::Single<std::vector<AddressBookDTO>> addressBooks(const std::vector<std::string>& types,
                                                       bool fromCache) override;
  /// With an empty cache, the server's answer (which is not cached); otherwise the cache alone,
  /// answered at once: the cached books of those types are searched in the order of their ids,
  /// and when several hold a match the last one's contact is returned.
  rx::Single<std::optional<Contact>> contact(const std::vector<std::string>& types,
                                             const std::string& userId) override;
  AddressBookDTO updateCache(const AddressBookDTO& addressBook) override;
  AddressBookSocketDTO updateCache(const AddressBookSocketDTO& event) override;
  AddressBookSocketDTO deleteCache(const AddressBookSocketDTO& event) override;

  /// A copy of the cache, by book id, taken under the cache's lock.
  std::map<std::string, AddressBookDTO> cachedAddressBooks() const;

 private:
  mutable std::mutex mutex_;  // guards addressBooks_
  std::map<std::string, AddressBookDTO> addressBooks_;
};

}  // namespace kel
