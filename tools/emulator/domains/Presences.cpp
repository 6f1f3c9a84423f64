#include "emulator/domains/Presences.h"

#include <array>
#include <stdexcept>
#include <utility>

namespace kel::emulator {

using nlohmann::json;

namespace {

struct Field {
  std::string_view key;
  JsonKind kind;
};

constexpr std::array<Field, 7> kFields{{{"online", JsonKind::boolean},
                                        {"activity", JsonKind::text},
                                        {"displayName", JsonKind::text},
                                        {"avatar", JsonKind::text},
                                        {"avatarUrl", JsonKind::text},
                                        {"note", JsonKind::text},
                                        {"mood", JsonKind::text}}};

std::string addressOf(std::string_view userId) {
  return std::string(kUserAddressPrefix) + std::string(userId);
}

}  // namespace

Presences::Presences(DomainContext context) : context_(std::move(context)) {}

void Presences::install(ResourceRouter& resources) {
  auto subscribing = refusing([this](const ResourceRequest& r) { return subscribe(r); });
  resources.route("POST", "/presence", subscribing);
  resources.route("POST", "/batch/presence", subscribing);
  resources.route("GET", "/presence/:address", refusing([this](const ResourceRequest& r) {
                    requireExactPath(r);
                    const auto userId = userFor(*r.param("address"));
                    const auto without = r.queryValue("withoutAvatar").value_or("false");
                    if (without != "true" && without != "false") {
                      throw Refusal(400, "withoutAvatar must be true or false");
                    }
                    std::lock_guard lock(mutex_);
                    return Reply::ok(record(userId, without == "false"));
                  }));
  resources.route("PUT", "/presence/:address",
                  refusing([this](const ResourceRequest& r) { return update(r); }));
}

std::optional<std::string> Presences::resolve(std::string_view address) const {
  if (address.starts_with(kUserAddressPrefix)) {
    address.remove_prefix(kUserAddressPrefix.size());
  } else if (const auto at = address.find('@'); at != std::string_view::npos) {
    const auto username = address.substr(0, at);
    const auto domain = address.substr(at + 1);
    for (const auto& user : context_.store.users()) {
      auto record = context_.user(user.id);
      if (record && record->value("username", "") == username &&
          record->value("domain", "") == domain) {
        return user.id;
      }
    }
    return std::nullopt;
  }
  if (address.empty() || !context_.knows(address)) return std::nullopt;
  return std::string(address);
}

std::string Presences::userFor(std::string_view address) const {
  auto userId = resolve(address);
  if (!userId) throw Refusal(404, "no user at the address " + std::string(address));
  return std::move(*userId);
}

json Presences::record(const std::string& userId, bool withAvatar) const {
  const auto user = context_.user(userId).value_or(json::object());
  json record = {{"address", addressOf(userId)},
                 {"online", false},
                 {"activity", "offline"},
                 {"username", user.value("username", userId)},
                 {"domain", user.value("domain", "")},
                 {"role", user.value("role", "")},
                 {"displayName", user.value("alias", user.value("username", userId))}};
  if (auto set = fields_.find(userId); set != fields_.end()) record.update(set->second);
  if (!withAvatar) record.erase("avatar");
  return record;
}

std::optional<json> Presences::presence(std::string_view userId) const {
  if (!context_.knows(userId)) return std::nullopt;
  std::lock_guard lock(mutex_);
  return record(std::string(userId));
}

std::set<SocketId> Presences::subscribers(std::string_view userId) const {
  std::lock_guard lock(mutex_);
  auto found = subscribers_.find(userId);
  return found == subscribers_.end() ? std::set<SocketId>{} : found->second;
}

Reply Presences::subscribe(const ResourceRequest& request) {
  requireExactPath(request);
  const bool batch = request.target.segments.front() == "batch";
  std::vector<std::string> userIds;
  if (batch) {
    if (!request.body.is_array()) throw Refusal(400, "the body must be a list of addresses");
    for (const auto& address : request.body) {
      if (!address.is_string()) throw Refusal(400, "the body must be a list of addresses");
      if (auto userId = resolve(address.get<std::string>())) userIds.push_back(std::move(*userId));
    }
  } else {
    userIds.push_back(userFor(text(request.body, "address")));
  }
  std::lock_guard lock(mutex_);
  json records = json::array();
  for (const auto& userId : userIds) {
    subscribers_[userId].insert(request.socket);
    records.push_back(record(userId));
  }
  return Reply::ok(batch ? std::move(records) : std::move(records.at(0)));
}

void Presences::checkFields(const json& fields, std::string_view where) {
  for (const auto& field : kFields) member(fields, field.key, field.kind, where, false);
}

void Presences::apply(const std::string& userId, const json& fields) {
  auto& set = fields_[userId];
  if (set.is_null()) set = json::object();
  for (const auto& field : kFields) {
    const auto value = fields.find(field.key);
    if (value == fields.end()) continue;
    if (value->is_null()) {
      set.erase(std::string(field.key));
    } else {
      set[std::string(field.key)] = *value;
    }
  }
}

Reply Presences::update(const ResourceRequest& request) {
  requireExactPath(request);
  const auto userId = userFor(*request.param("address"));
  if (userId != request.userId) throw Refusal(403, "only one's own presence can be changed");
  checkFields(request.body, "");
  std::lock_guard lock(mutex_);
  apply(userId, request.body);
  auto updated = record(userId);
  if (auto found = subscribers_.find(userId); found != subscribers_.end()) {
    const auto path = "/presence/" + addressOf(userId);
    std::erase_if(found->second, [&](SocketId socket) {
      return context_.push(Recipients::socket(socket), path, "PUT", updated) == 0;
    });
  }
  return Reply::ok(std::move(updated));
}

void Presences::set(std::string_view userId, const json& fields) {
  if (!context_.knows(userId)) {
    throw std::invalid_argument("no user \"" + std::string(userId) + "\"");
  }
  try {
    checkFields(fields, "");
  } catch (const Refusal& refusal) {
    throw std::invalid_argument(refusal.what());
  }
  std::lock_guard lock(mutex_);
  apply(std::string(userId), fields);
}

void Presences::checkFixture(const json& part, const UserIds& users) {
  if (!part.is_object())
    throw Refusal(400, "\"presences\" must be an object of presences by user id");
  for (const auto& [userId, fields] : part.items()) {
    const std::string where = "presences." + userId + ".";
    if (!users.contains(userId)) {
      throw Refusal(400, memberName(where, "") + ": no user \"" + userId + "\"");
    }
    onlyKnownKeys(fields,
                  {"online", "activity", "displayName", "avatar", "avatarUrl", "note", "mood"},
                  where);
    checkFields(fields, where);
  }
}

void Presences::loadFixture(const json& part) {
  std::lock_guard lock(mutex_);
  for (const auto& [userId, fields] : part.items()) apply(userId, fields);
}

}  // namespace kel::emulator
