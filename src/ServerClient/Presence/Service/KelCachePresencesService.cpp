#include "ServerClient/Presence/Service/KelCachePresencesService.h"

#include <utility>

#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/Utils/Description.h"

namespace kel {

KelCachePresencesService::KelCachePresencesService(SocketClientSlot socketClient)
    : SocketService(socketClient), server_(socketClient) {}

std::optional<PresenceDTO> KelCachePresencesService::subscribedPresence(
    const std::string& address) const {
  std::lock_guard lock(mutex_);
  auto subscribed = subscriptions_.find(address);
  if (subscribed == subscriptions_.end() || !subscribed->second) return std::nullopt;
  auto cached = presences_.find(presenceCacheKey(address));
  if (cached == presences_.end()) return std::nullopt;
  KEL_LOG_DEBUG("subscribe(to:)", "Presence from cache: " + description(cached->second));
  return cached->second;
}

void KelCachePresencesService::confirmSubscription(const PresenceDTO& presence) {
  if (presence.address) {
    std::lock_guard lock(mutex_);
    subscriptions_[*presence.address] = true;
  }
  updateCache(presence);
}

rx::Single<CachedPresence> KelCachePresencesService::subscribe(const std::string& address) {
  if (auto cached = subscribedPresence(address)) {
    return rx::Single<CachedPresence>::just({std::move(*cached), true});
  }
  return server_.subscribe(address).map([weak = weakSelf(this)](const PresenceDTO& presence) {
    if (auto self = weak.lock()) self->confirmSubscription(presence);
    return CachedPresence{presence, false};
  });
}

rx::Single<CachedPresences> KelCachePresencesService::subscribe(
    const std::vector<std::string>& addresses) {
  std::vector<PresenceDTO> cached;
  std::vector<std::string> remaining;
  for (const auto& address : addresses) {
    if (auto presence = subscribedPresence(address)) {
      cached.push_back(std::move(*presence));
    } else {
      remaining.push_back(address);
    }
  }
  if (remaining.empty()) {
    return rx::Single<CachedPresences>::just({std::move(cached), true});
  }
  return server_.subscribe(remaining).map(
      [weak = weakSelf(this), cached = std::move(cached)](const std::vector<PresenceDTO>& fetched) {
        auto self = weak.lock();
        CachedPresences result{fetched, false};
        for (const auto& presence : fetched) {
          if (self) self->confirmSubscription(presence);
        }
        result.presences.insert(result.presences.end(), cached.begin(), cached.end());
        return result;
      });
}

rx::Single<PresenceDTO> KelCachePresencesService::presence(const std::string& address, bool avatar,
                                                           bool fromCache) {
  if (fromCache) {
    std::lock_guard lock(mutex_);
    auto cached = presences_.find(presenceCacheKey(address));
    if (cached != presences_.end()) {
      KEL_LOG_DEBUG("presence(with:avatar:fromCache:)",
                    "Presence from cache: " + description(cached->second));
      return rx::Single<PresenceDTO>::just(cached->second);
    }
  }
  return server_.presence(address, avatar)
      .map([weak = weakSelf(this)](const PresenceDTO& presence) {
        if (auto self = weak.lock()) self->updateCache(presence);
        return presence;
      });
}

rx::Single<PresenceDTO> KelCachePresencesService::update(const PresenceUpdateRequest& request) {
  return server_.update(request).map([weak = weakSelf(this)](const PresenceDTO& presence) {
    if (auto self = weak.lock()) self->updateCache(presence);
    return presence;
  });
}

PresenceDTO KelCachePresencesService::updateCache(const PresenceDTO& presence) {
  if (!presence.address) {
    KEL_LOG_VERBOSE("updateCache(_:)", "Presence cache NOT updated: " + description(presence));
    return presence;
  }
  KEL_LOG_VERBOSE("updateCache(_:)", "Presence cache updated: " + description(presence));
  std::lock_guard lock(mutex_);
  presences_.insert_or_assign(presenceCacheKey(*presence.address), presence);
  if (presence.username && presence.domain) {
    presences_.insert_or_assign(*presence.username + "@" + *presence.domain, presence);
  }
  return presence;
}

std::map<std::string, PresenceDTO> KelCachePresencesService::cachedPresences() const {
  std::lock_guard lock(mutex_);
  return presences_;
}

std::map<std::string, bool> KelCachePresencesService::subscriptions() const {
  std::lock_guard lock(mutex_);
  return subscriptions_;
}

}  // namespace kel
