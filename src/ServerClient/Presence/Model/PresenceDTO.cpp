#include "ServerClient/Presence/Model/PresenceDTO.h"

#include <nlohmann/json.hpp>

#include "ServerClient/User/Model/User.h"
#include "ServerClient/Utils/detail/JsonFields.h"

namespace kel {

namespace {

template <class Record, class Visit>
void forEachField(Record& presence, Visit visit) {
  visit("address", presence.address);
  visit("online", presence.online);
  visit("activity", presence.activity);
  visit("mood", presence.mood);
  visit("note", presence.note);
  visit("username", presence.username);
  visit("domain", presence.domain);
  visit("role", presence.role);
  visit("avatar", presence.avatar);
  visit("avatarUrl", presence.avatarUrl);
  visit("displayName", presence.displayName);
}

}  // namespace

void from_json(const nlohmann::json& json, PresenceDTO& presence) {
  PresenceDTO decoded;
  forEachField(decoded, [&](const char* key, auto& field) {
    field = detail::readOptional<typename std::decay_t<decltype(field)>::value_type>(json, key);
  });
  presence = std::move(decoded);
}

void to_json(nlohmann::json& json, const PresenceDTO& presence) {
  json = nlohmann::json::object();
  forEachField(presence, [&](const char* key, const auto& field) {
    if (field) json[key] = *field;
  });
}

void to_json(nlohmann::json& json, const CachedPresence& presence) {
  json = {{"presence", presence.presence}, {"fromCache", presence.fromCache}};
}

void to_json(nlohmann::json& json, const CachedPresences& presences) {
  json = {{"presences", presences.presences}, {"fromCache", presences.fromCache}};
}

nlohmann::ordered_json PresenceUpdateRequest::toDictionary() const {
  nlohmann::ordered_json body = nlohmann::ordered_json::object();
  if (activity) {
    body["online"] = online;
    body["activity"] = *activity;
  }
  if (displayName) body["displayName"] = *displayName;
  if (!avatar) {
    body["avatar"] = nullptr;
  } else if (!avatar->empty()) {
    body["avatar"] = *avatar;
  }
  if (note) body["note"] = *note;
  if (mood) body["mood"] = *mood;
  return body;
}

std::string presencePathAddress(std::string_view address) {
  if (address.find(kKelUserPrefix) != std::string_view::npos ||
      address.find('@') != std::string_view::npos) {
    return std::string(address);
  }
  return std::string(kKelUserPrefix) + std::string(address);
}

std::string presenceCacheKey(std::string_view address) {
  std::string key(address);
  for (auto at = key.find(kKelUserPrefix); at != std::string::npos;
       at = key.find(kKelUserPrefix, at)) {
    key.erase(at, kKelUserPrefix.size());
  }
  return key;
}

}  // namespace kel
