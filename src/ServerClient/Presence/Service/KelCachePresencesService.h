#pragma once

#include <map>
#include <mutex>
#include <string>

#include "ServerClient/Presence/Service/KelPresencesService.h"

namespace kel {

/// Presence with the cache the facade hands out: records by cache key (the address without
/// "kel-user:", and "username@domain"), and the addresses whose subscription the server has
/// confirmed. Both start empty, are never persisted and only grow; they live as long as the
/// service (a sign-out that drops the services drops them).
///
/// It reaches the server through a KelPresencesService of its own rather than by deriving from
/// it: both interfaces have a subscribe for one address, with different results, and one class
/// cannot implement both.
///
/// Thread safety: the cache is written from the network thread (answers) and from callers'
/// threads (updateCache); one mutex guards both maps and is never held while a stream emits or a
/// request is sent, so every member may be called from any thread.
class KelCachePresencesService : public SocketService, public CachePresencesService {
 public:
  /// A service with an empty cache that sends through whichever client `socketClient` holds at
  /// each request. Make it with std::make_shared: otherwise server answers are not cached.
  explicit KelCachePresencesService(SocketClientSlot socketClient);

  rx::Single<CachedPresence> subscribe(const std::string& address) override;
  rx::Single<CachedPresences> subscribe(const std::vector<std::string>& addresses) override;
  using CachePresencesService::presence;
  rx::Single<PresenceDTO> presence(const std::string& address, bool avatar,
                                   bool fromCache) override;
  rx::Single<PresenceDTO> update(const PresenceUpdateRequest& request) override;
  PresenceDTO updateCache(const PresenceDTO& presence) override;

  /// The server operations, without the cache. The reference is valid as long as this service.
  KelPresencesService& server() noexcept { return server_; }

  /// A copy of the cached records by key, taken under the cache's lock.
  std::map<std::string, PresenceDTO> cachedPresences() const;
  /// A copy of the confirmed subscriptions (address to true), taken under the cache's lock.
  std::map<std::string, bool> subscriptions() const;

 private:
  /// The record of `address` when its subscription is confirmed and it is cached.
  std::optional<PresenceDTO> subscribedPresence(const std::string& address) const;
  void confirmSubscription(const PresenceDTO& presence);

  KelPresencesService server_;
  mutable std::mutex mutex_;  // guards presences_ and subscriptions_
  std::map<std::string, PresenceDTO> presences_;
  std::map<std::string, bool> subscriptions_;
};

}  // namespace kel
