#pragma once

// A user's published availability, and what the user sends to change their own.
//
//   {"address": "kel-user:u1", "online": true, "activity": "busy", "mood": "happy",
//    "note": "In a meeting", "username": "ann", "domain": "example.org", "role": "user",
//    "avatar": "<base64>", "avatarUrl": "https://...", "displayName": "Ann"}
//
// Every key may be absent.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

namespace kel {

struct PresenceDTO {
  std::optional<std::string> address{};
  std::optional<bool> online{};
  std::optional<std::string> activity{};
  std::optional<std::string> mood{};
  std::optional<std::string> note{};
  std::optional<std::string> username{};
  std::optional<std::string> domain{};
  std::optional<std::string> role{};
  std::optional<std::string> avatar{};
  std::optional<std::string> avatarUrl{};
  std::optional<std::string> displayName{};

  bool operator==(const PresenceDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(PresenceDTO, (),
                      (address, online, activity, mood, note, username, domain, role, avatar,
                       avatarUrl, displayName))

void from_json(const nlohmann::json& json, PresenceDTO& presence);
void to_json(nlohmann::json& json, const PresenceDTO& presence);

/// A record and whether it came from the cache rather than the server.
struct CachedPresence {
  PresenceDTO presence;
  bool fromCache = false;
  bool operator==(const CachedPresence&) const = default;
};

struct CachedPresences {
  std::vector<PresenceDTO> presences;
  bool fromCache = false;
  bool operator==(const CachedPresences&) const = default;
};

void to_json(nlohmann::json& json, const CachedPresence& presence);
void to_json(nlohmann::json& json, const CachedPresences& presences);

/// A change of the user's own presence. `address` goes into the path, the rest into the body.
struct PresenceUpdateRequest {
  std::string address{};
  /// Sent only together with an activity.
  bool online = false;
  std::optional<std::string> activity{};
  std::optional<std::string> avatar{};
  std::optional<std::string> displayName{};
  std::optional<std::string> note{};
  std::optional<std::string> mood{};

  /// The body, with its keys in this order: "online" and "activity" (when there is an activity),
  /// "displayName", "avatar" (null when absent, left out when empty: null clears the picture,
  /// an empty text leaves it), "note", "mood"; absent values are left out.
  nlohmann::ordered_json toDictionary() const;

  bool operator==(const PresenceUpdateRequest&) const = default;
};
BOOST_DESCRIBE_STRUCT(PresenceUpdateRequest, (),
                      (address, online, activity, avatar, displayName, note, mood))

/// The address as a path segment: unchanged when it holds "kel-user:" or "@", otherwise
/// "kel-user:" followed by it.
std::string presencePathAddress(std::string_view address);
/// The address as a cache key: every "kel-user:" removed.
std::string presenceCacheKey(std::string_view address);

}  // namespace kel
