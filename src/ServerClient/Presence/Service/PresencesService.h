#pragma once

#include <string>
#include <vector>

#include "ServerClient/Presence/Model/PresenceDTO.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// Users' presence: subscribing to it (the server then pushes its changes), reading it, and
/// changing the user's own.
///
/// Each operation sends one request when subscribed (again at every further subscription) and
/// never retries. Results arrive on the socket client's thread, which must not be blocked; a
/// failure found before sending arrives at once on the subscribing thread. Errors, all SDKError:
/// - ConnectionError `noSocketClient`: not signed in, or the socket is not authenticated;
///   nothing is sent;
/// - ConnectionError `timeout` (code -1): no answer within 20 s (10 s for update);
/// - ConnectionError mapped from the server's error code (ConnectionError::mapToOvError);
/// - GenericError `decoding`: an answer that is not a presence record, or a list of them,
///   where one is expected;
/// - GenericError `underlying`: the socket was stopped (sign-out) while the request was pending;
///   this one arrives on the thread that stopped it.
///
/// Disposing the subscription before the answer forgets the request: the answer is dropped, but
/// the server may still carry it out (a presence subscription included). Every member may be
/// called from any thread.
class PresencesService {
 public:
  /// Destroying a service does not end the requests already made through it.
  virtual ~PresencesService() = default;

  /// Asks the server to push the changes of `address`'s presence to this user
  /// (PresencesEventHandler::presenceUpdated); the record as it is now.
  virtual rx::Single<PresenceDTO> subscribe(const std::string& address) = 0;
  /// subscribe for several addresses in one request; the records in the server's order.
  virtual rx::Single<std::vector<PresenceDTO>> subscribe(
      const std::vector<std::string>& addresses) = 0;
  /// The presence of `address` (with or without `kel-user:`, or "username@domain"), without
  /// subscribing to it. `avatar` is sent as the query's "withoutAvatar" value as it is: true
  /// asks the server to leave the picture out.
  virtual rx::Single<PresenceDTO> presence(const std::string& address, bool avatar = true) = 0;
  /// Changes the user's own presence; the record as the server now has it.
  virtual rx::Single<PresenceDTO> update(const PresenceUpdateRequest& request) = 0;
};

/// Presence with an in-memory cache of records and of confirmed subscriptions. The application
/// keeps it in step with the presence events (PresencesEventHandler) through updateCache.
///
/// An address counts as subscribed once a subscribe answer carried a record whose "address" is
/// exactly that text (such as `kel-user:u1`), and stays so for the cache's life.
/// Answers served from the cache arrive at once on the subscribing thread; requests behave as
/// for PresencesService, and every record they answer is cached.
class CachePresencesService {
 public:
  /// Destroying a service does not end the requests already made through it.
  virtual ~CachePresencesService() = default;

  /// From the cache when that address is subscribed and cached, without a request (fromCache
  /// true); otherwise from the server, as PresencesService::subscribe, marking the answer's
  /// address subscribed.
  virtual rx::Single<CachedPresence> subscribe(const std::string& address) = 0;
  /// The addresses not subscribed and cached are asked for in one request (none when all are):
  /// the fetched records in the server's order, then the cached ones in the order asked.
  /// fromCache is true only when no request was made.
  virtual rx::Single<CachedPresences> subscribe(const std::vector<std::string>& addresses) = 0;
  /// With `fromCache` and a record cached under the address's cache key (presenceCacheKey, or
  /// "username@domain"): that record, at once, subscribed or not and whatever `avatar` says.
  /// Otherwise PresencesService::presence, its answer cached.
  virtual rx::Single<PresenceDTO> presence(const std::string& address, bool avatar,
                                           bool fromCache) = 0;
  /// presence(address, true, fromCache): a request, if one is made, asks for no picture.
  rx::Single<PresenceDTO> presence(const std::string& address, bool fromCache) {
    return presence(address, true, fromCache);
  }
  /// Changes the user's own presence; the answer is cached.
  virtual rx::Single<PresenceDTO> update(const PresenceUpdateRequest& request) = 0;
  /// Stores a record with an address under its cache key, and under "username@domain" too when
  /// it has both, replacing what was there; a record without address is not stored. Returns it.
  virtual PresenceDTO updateCache(const PresenceDTO& presence) = 0;
};

}  // namespace kel
