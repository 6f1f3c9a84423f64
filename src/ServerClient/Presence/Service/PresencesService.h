#pragma once

#include <string>
#include <vector>

#include "ServerClient/Presence/Model/PresenceDTO.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// Users' presence: subscribing to it (the server then pushes its changes), reading it, and
/// changing the user's own.
class PresencesService {
 public:
  virtual ~PresencesService() = default;

  virtual rx::Single<PresenceDTO> subscribe(const std::string& address) = 0;
  virtual rx::Single<std::vector<PresenceDTO>> subscribe(
      const std::vector<std::string>& addresses) = 0;
  /// `avatar` is sent as the query's "withoutAvatar" value as it is: true asks the server to
  /// leave the picture out.
  virtual rx::Single<PresenceDTO> presence(const std::string& address, bool avatar = true) = 0;
  virtual rx::Single<PresenceDTO> update(const PresenceUpdateRequest& request) = 0;
};

/// Presence with an in-memory cache of records and of confirmed subscriptions. The application
/// keeps it in step with the presence events (PresencesEventHandler) through updateCache.
class CachePresencesService {
 public:
  virtual ~CachePresencesService() = default;

  /// From the cache when that address is subscribed and cached; otherwise from the server.
  virtual rx::Single<CachedPresence> subscribe(const std::string& address) = 0;
  /// The addresses not subscribed and cached are asked for in one request (none when all are):
  /// the fetched records in the server's order, then the cached ones in the order asked.
  virtual rx::Single<CachedPresences> subscribe(const std::vector<std::string>& addresses) = 0;
  virtual rx::Single<PresenceDTO> presence(const std::string& address, bool avatar,
                                           bool fromCache) = 0;
  rx::Single<PresenceDTO> presence(const std::string& address, bool fromCache) {
    return presence(address, true, fromCache);
  }
  /// Changes the user's own presence; the answer is cached.
  virtual rx::Single<PresenceDTO> update(const PresenceUpdateRequest& request) = 0;
  /// Stores a record with an address under its cache key, and under "username@domain" too when
  /// it has both; returns it.
  virtual PresenceDTO updateCache(const PresenceDTO& presence) = 0;
};

}  // namespace kel
