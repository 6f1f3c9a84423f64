#pragma once

/// @file
/// A user's published availability, and what the user sends to change their own.
///
/// ```
/// {"address": "kel-user:u1", "online": true, "activity": "busy", "mood": "happy",
///  "note": "In a meeting", "username": "ann", "domain": "example.org", "role": "user",
///  "avatar": "<base64>", "avatarUrl": "https://...", "displayName": "Ann"}
/// ```
///
/// Every key may be absent.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

namespace kel {

/// One user's presence (JSON form in PresenceDTO.h), as PresencesService answers it and
/// PresencesEventHandler announces it. A plain value; every field may be absent (or null).
struct PresenceDTO {
  std::optional<std::string> address{};      ///< "address", e.g. "kel-user:u1"
  std::optional<bool> online{};              ///< "online"
  std::optional<std::string> activity{};     ///< "activity", e.g. "busy" or "offline"
  std::optional<std::string> mood{};         ///< "mood"
  std::optional<std::string> note{};         ///< "note": a free text of the user's
  std::optional<std::string> username{};     ///< "username"
  std::optional<std::string> domain{};       ///< "domain"; "username@domain" is another address
  std::optional<std::string> role{};         ///< "role"
  std::optional<std::string> avatar{};       ///< "avatar": the picture, base64 text
  std::optional<std::string> avatarUrl{};    ///< "avatarUrl": where the picture is
  std::optional<std::string> displayName{};  ///< "displayName", for display

  /// Field-by-field equality.
  bool operator==(const PresenceDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(PresenceDTO, (),
                      (address, online, activity, mood, note, username, domain, role, avatar,
                       avatarUrl, displayName))

/// Reads a presence; throws (nlohmann's errors) for a value of another JSON type, which
/// kel::from reports as GenericError(decoding).
void from_json(const nlohmann::json& json, PresenceDTO& presence);
/// Writes the present values only.
void to_json(nlohmann::json& json, const PresenceDTO& presence);

/// A record and whether it came from the cache rather than the server.
struct CachedPresence {
  PresenceDTO presence;    ///< the record
  bool fromCache = false;  ///< true when no request was made for it
  /// Field-by-field equality.
  bool operator==(const CachedPresence&) const = default;
};

/// Records and whether they all came from the cache rather than the server.
struct CachedPresences {
  std::vector<PresenceDTO> presences;  ///< the records
  bool fromCache = false;  ///< true when no request was made: every record came from the cache
  /// Field-by-field equality.
  bool operator==(const CachedPresences&) const = default;
};

/// `{"presence": ..., "fromCache": ...}`, for printing.
void to_json(nlohmann::json& json, const CachedPresence& presence);
/// `{"presences": [...], "fromCache": ...}`, for printing.
void to_json(nlohmann::json& json, const CachedPresences& presences);

/// A change of the user's own presence (PresencesService::update). `address` goes into the
/// path, the rest into the body.
struct PresenceUpdateRequest {
  std::string address{};  ///< the user's own address, put into the path as it is
  /// Sent only together with an activity.
  bool online = false;
  std::optional<std::string> activity{};  ///< "activity", with "online"; absent: unchanged
  /// "avatar": a text sets the picture; absent sends null, which clears it; an empty text
  /// leaves it unchanged.
  std::optional<std::string> avatar{};
  std::optional<std::string> displayName{};  ///< "displayName"; absent: unchanged
  std::optional<std::string> note{};         ///< "note"; absent: unchanged
  std::optional<std::string> mood{};         ///< "mood"; absent: unchanged

  /// The body, with its keys in this order: "online" and "activity" (when there is an activity),
  /// "displayName", "avatar" (null when absent, left out when empty: null clears the picture,
  /// an empty text leaves it), "note", "mood"; absent values are left out.
  nlohmann::ordered_json toDictionary() const;

  /// Field-by-field equality.
  bool operator==(const PresenceUpdateRequest&) const = default;
};
BOOST_DESCRIBE_STRUCT(PresenceUpdateRequest, (),
                      (address, online, activity, avatar, displayName, note, mood))

/// The address as a path segment: unchanged when it holds `kel-user:` or `@`, otherwise
/// `kel-user:` followed by it.
std::string presencePathAddress(std::string_view address);
/// The address as a cache key: every `kel-user:` removed.
std::string presenceCacheKey(std::string_view address);

}  // namespace kel
