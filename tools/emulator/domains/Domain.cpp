#include "emulator/domains/Domain.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace kel::emulator {

using nlohmann::json;

std::optional<json> DomainContext::user(std::string_view userId) const {
  auto account = signIn.account(userId);
  if (!account) return std::nullopt;
  return std::move(account->user);
}

std::vector<std::string> DomainContext::userIds() const {
  std::vector<std::string> ids;
  for (const auto& user : store.users()) ids.push_back(user.id);
  return ids;
}

std::int64_t millis(TimePoint time) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

TimePoint fromMillis(std::int64_t millis) {
  return TimePoint(
      std::chrono::duration_cast<TimePoint::duration>(std::chrono::milliseconds(millis)));
}

TimePoint DomainClock::now() const {
  std::lock_guard lock(mutex_);
  return now_ ? now_() : std::chrono::system_clock::now();
}

void DomainClock::set(std::function<TimePoint()> now) {
  std::lock_guard lock(mutex_);
  now_ = std::move(now);
}

ResourceHandler refusing(ResourceHandler handler) {
  return [handler = std::move(handler)](const ResourceRequest& request) {
    try {
      return handler(request);
    } catch (const Refusal& refusal) {
      return Reply::message(refusal.status(), refusal.what());
    }
  };
}

void requireExactPath(const ResourceRequest& request) {
  if (!request.rest.empty()) throw Refusal(404, "no resource at " + request.target.path);
}

std::string memberName(std::string_view where, std::string_view key) {
  std::string name = "\"";
  name += where;
  name += key;
  if (name.ends_with('.')) name.pop_back();
  if (name.size() == 1) return "the body";
  name += '"';
  return name;
}

std::string entryWhere(std::string_view where, std::string_view key, std::size_t index) {
  return std::string(where) + std::string(key) + "[" + std::to_string(index) + "].";
}

const json* member(const json& object, std::string_view key, JsonKind kind, std::string_view where,
                   bool required) {
  if (!object.is_object()) throw Refusal(400, memberName(where, "") + " must be an object");
  const auto found = object.find(key);
  if (found == object.end() || found->is_null()) {
    if (required) throw Refusal(400, memberName(where, key) + " is missing");
    return nullptr;
  }
  const json& value = *found;
  std::string_view expected;
  switch (kind) {
    case JsonKind::text:
      if (!value.is_string()) expected = "a text";
      break;
    case JsonKind::boolean:
      if (!value.is_boolean()) expected = "true or false";
      break;
    case JsonKind::integer:
      if (!value.is_number_integer()) expected = "an integer";
      break;
    case JsonKind::object:
      if (!value.is_object()) expected = "an object";
      break;
    case JsonKind::list:
      if (!value.is_array()) expected = "a list";
      break;
  }
  if (!expected.empty()) {
    throw Refusal(400, memberName(where, key) + " must be " + std::string(expected));
  }
  return &value;
}

std::string text(const json& object, std::string_view key, std::string_view where) {
  return member(object, key, JsonKind::text, where)->get<std::string>();
}

std::string identifier(const json& object, std::string_view key, std::string_view where) {
  auto value = text(object, key, where);
  if (value.empty() || value.find('/') != std::string::npos) {
    throw Refusal(400, memberName(where, key) + " must be a text without \"/\", not empty");
  }
  return value;
}

std::optional<std::string> optionalText(const json& object, std::string_view key,
                                        std::string_view where) {
  const auto* value = member(object, key, JsonKind::text, where, false);
  if (value == nullptr) return std::nullopt;
  return value->get<std::string>();
}

std::optional<std::int64_t> optionalInstant(const json& object, std::string_view key,
                                            std::string_view where) {
  if (!object.is_object()) throw Refusal(400, memberName(where, "") + " must be an object");
  const auto found = object.find(key);
  if (found == object.end() || found->is_null()) return std::nullopt;
  // Clients write instants as floating-point milliseconds; anything beyond ±10^15 ms (some 30,000
  // years) is no date.
  if (!found->is_number() || !(std::abs(found->get<double>()) < 1e15)) {
    throw Refusal(400, memberName(where, key) + " must be a number of milliseconds");
  }
  return std::llround(found->get<double>());
}

std::int64_t instant(const json& object, std::string_view key, std::string_view where) {
  auto value = optionalInstant(object, key, where);
  if (!value) throw Refusal(400, memberName(where, key) + " is missing");
  return *value;
}

void requireEmptyBody(const json& body) {
  if (!body.empty()) throw Refusal(400, "the body must be empty ({} or [])");
}

void onlyKnownKeys(const json& object, std::initializer_list<std::string_view> known,
                   std::string_view where) {
  if (!object.is_object()) throw Refusal(400, memberName(where, "") + " must be an object");
  for (const auto& [key, value] : object.items()) {
    if (std::find(known.begin(), known.end(), key) == known.end()) {
      throw Refusal(400, memberName(where, key) + " is not known");
    }
  }
}

void checkContact(const json& contact, std::string_view where) {
  identifier(contact, "id", where);
  text(contact, "name", where);
  member(contact, "favorite", JsonKind::boolean, where);
  optionalText(contact, "associatedUserId", where);
  for (const auto* key : {"phones", "emails"}) {
    const auto* entries = member(contact, key, JsonKind::list, where, false);
    if (entries == nullptr) continue;
    for (std::size_t i = 0; i < entries->size(); ++i) {
      const auto entry = entryWhere(where, key, i);
      text((*entries)[i], "type", entry);
      member((*entries)[i], "primary", JsonKind::boolean, entry);
      // A phone number without its number is no phone; an e-mail entry may lack its address.
      member((*entries)[i], "value", JsonKind::text, entry, std::string_view(key) == "phones");
    }
  }
}

bool contains(const std::vector<std::string>& users, std::string_view user) {
  return std::find(users.begin(), users.end(), user) != users.end();
}

}  // namespace kel::emulator
