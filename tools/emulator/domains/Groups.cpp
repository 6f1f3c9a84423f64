#include "emulator/domains/Groups.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace kel::emulator {

using nlohmann::json;

namespace {

constexpr std::string_view kGroupPath = "/usersGroup";
constexpr std::string_view kParticipantPath = "/usersGroup/participant";

const json kSimultaneous = {{"type", "simultaneous"}};

/// The strategy as stored: its type and, for the types that have them, exactly its properties.
json ringingStrategy(const json& value, std::string_view where) {
  const auto type = text(value, "type", where);
  if (type == "simultaneous") return kSimultaneous;
  if (type != "sequential" && type != "simultaneous-reduced") {
    throw Refusal(400, memberName(where, "type") +
                           " must be sequential, simultaneous or simultaneous-reduced");
  }
  const auto& properties = *member(value, "properties", JsonKind::object, where);
  const auto inner = std::string(where) + "properties.";
  json result = {
      {"type", type},
      {"properties", {{"steps", *member(properties, "steps", JsonKind::integer, inner)}}}};
  if (type == "sequential") {
    result["properties"]["delay"] = *member(properties, "delay", JsonKind::integer, inner);
  }
  return result;
}

std::vector<std::string> userList(const json& object, std::string_view key, std::string_view where,
                                  bool required) {
  std::vector<std::string> users;
  const auto* list = member(object, key, JsonKind::list, where, required);
  if (list == nullptr) return users;
  for (const auto& user : *list) {
    if (!user.is_string()) throw Refusal(400, memberName(where, key) + " must hold user ids");
    users.push_back(user.get<std::string>());
  }
  return users;
}

}  // namespace

Groups::Groups(DomainContext context) : context_(std::move(context)) {}

void Groups::install(ResourceRouter& resources) {
  auto handle = [this](Reply (Groups::*method)(const ResourceRequest&)) {
    return refusing([this, method](const ResourceRequest& r) { return (this->*method)(r); });
  };
  resources.route("POST", "/usersGroup", handle(&Groups::create));
  resources.route("GET", "/usersGroup", handle(&Groups::list));
  for (const auto* method : {"POST", "PUT", "DELETE"}) {
    resources.route(method, "/usersGroup/:id/participants", handle(&Groups::participants));
  }
  resources.route("DELETE", "/usersGroup/:id/leave", handle(&Groups::leave));
  resources.route("DELETE", "/usersGroups/participations", handle(&Groups::leaveAll));

  resources.route("GET", "/usersGroup/:id", refusing([this](const ResourceRequest& r) {
                    requireExactPath(r);
                    std::lock_guard lock(mutex_);
                    return Reply::ok(toJson(existing(r)));
                  }));
  resources.route("PUT", "/usersGroup/:id", refusing([this](const ResourceRequest& r) {
                    requireExactPath(r);
                    const auto strategy =
                        ringingStrategy(*member(r.body, "ringingStrategy", JsonKind::object, ""),
                                        "ringingStrategy.");
                    std::lock_guard lock(mutex_);
                    auto& group = owned(r);
                    group.ringingStrategy = strategy;
                    pushChanged(group);
                    return Reply::ok();
                  }));
  resources.route("DELETE", "/usersGroup/:id", refusing([this](const ResourceRequest& r) {
                    requireExactPath(r);
                    std::lock_guard lock(mutex_);
                    const auto group = owned(r);
                    std::erase_if(groups_, [&](const Group& g) { return g.id == group.id; });
                    for (const auto& user : concerned(group)) {
                      push(user, kGroupPath, "DELETE", {{"groupId", group.id}});
                    }
                    return Reply::ok();
                  }));
  resources.route("HEAD", "/usersGroup/:id/participants/:userId",
                  refusing([this](const ResourceRequest& r) {
                    requireExactPath(r);
                    std::lock_guard lock(mutex_);
                    if (!contains(existing(r).participants, *r.param("userId"))) {
                      throw Refusal(404, *r.param("userId") + " is not a participant");
                    }
                    return Reply::ok();
                  }));
}

void Groups::push(std::string_view userId, std::string_view path, std::string_view method,
                  const json& body) {
  context_.push(Recipients::user(std::string(userId)), path, method, body);
}

json Groups::toJson(const Group& group) const {
  return {{"groupId", group.id},
          {"chatId", group.chatId},
          {"name", group.name},
          {"participants", group.participants},
          {"owner", context_.user(group.owner).value_or(json{{"id", group.owner}})},
          {"ringingStrategy", group.ringingStrategy}};
}

Groups::Group* Groups::find(std::string_view groupId) {
  auto found =
      std::find_if(groups_.begin(), groups_.end(), [&](const Group& g) { return g.id == groupId; });
  return found == groups_.end() ? nullptr : &*found;
}

Groups::Group& Groups::existing(const ResourceRequest& request) {
  const auto id = *request.param("id");
  auto* group = find(id);
  if (group == nullptr) throw Refusal(404, "no group " + id);
  return *group;
}

Groups::Group& Groups::owned(const ResourceRequest& request) {
  auto& group = existing(request);
  if (group.owner != request.userId) throw Refusal(403, "only the owner changes a group");
  return group;
}

std::vector<std::string> Groups::concerned(const Group& group) {
  std::vector<std::string> users{group.owner};
  for (const auto& participant : group.participants) {
    if (!contains(users, participant)) users.push_back(participant);
  }
  return users;
}

void Groups::pushChanged(const Group& group, std::string_view except) {
  const auto body = toJson(group);
  for (const auto& user : concerned(group)) {
    if (user != except) push(user, kGroupPath, "PUT", body);
  }
}

bool Groups::removeParticipant(Group& group, std::string_view userId) {
  if (std::erase(group.participants, userId) == 0) return false;
  push(userId, kParticipantPath, "DELETE", {{"groupId", group.id}});
  return true;
}

Reply Groups::create(const ResourceRequest& request) {
  requireExactPath(request);
  const auto name = text(request.body, "name");
  std::optional<std::string> id;
  if (member(request.body, "groupId", JsonKind::text, "", false) != nullptr) {
    id = identifier(request.body, "groupId");
  }
  std::lock_guard lock(mutex_);
  if (id && find(*id) != nullptr) throw Refusal(409, "there is a group " + *id);
  while (!id || find(*id) != nullptr) id = "group-" + std::to_string(++created_);
  groups_.push_back(Group{*id, "chat-" + *id, name, request.userId, {}, kSimultaneous});
  auto body = toJson(groups_.back());
  push(request.userId, kGroupPath, "POST", body);
  return Reply::ok(std::move(body));
}

Reply Groups::list(const ResourceRequest& request) {
  requireExactPath(request);
  const auto participating = request.queryValue("participating");
  if (participating && *participating != "true" && *participating != "false") {
    throw Refusal(400, "participating must be true or false");
  }
  std::lock_guard lock(mutex_);
  json answer = json::array();
  for (const auto& group : groups_) {
    const bool participant = contains(group.participants, request.userId);
    const bool owner = group.owner == request.userId;
    if (participating ? (*participating == "true" ? participant : owner) : participant || owner) {
      answer.push_back(toJson(group));
    }
  }
  return Reply::ok(std::move(answer));
}

Reply Groups::participants(const ResourceRequest& request) {
  requireExactPath(request);
  const auto& body = request.body;
  if (request.method == "PUT") {
    const auto order = userList(body, "participants", "", true);
    std::lock_guard lock(mutex_);
    auto& group = owned(request);
    auto sortedOrder = order;
    auto sortedNow = group.participants;
    std::sort(sortedOrder.begin(), sortedOrder.end());
    std::sort(sortedNow.begin(), sortedNow.end());
    if (sortedOrder != sortedNow) {
      throw Refusal(400, "\"participants\" must list the group's participants, each once");
    }
    group.participants = order;
    pushChanged(group);
    return Reply::ok();
  }
  const bool one = body.is_object() && body.contains("targetUserId");
  if (!one && !body.empty()) throw Refusal(400, "the body must be {\"targetUserId\": <user id>}");
  const auto target = one ? identifier(body, "targetUserId") : std::string();
  if (request.method == "POST") {
    if (!one) throw Refusal(400, "\"targetUserId\" is missing");
    if (!context_.knows(target)) throw Refusal(404, "no user " + target);
    std::lock_guard lock(mutex_);
    auto& group = owned(request);
    if (contains(group.participants, target)) {
      throw Refusal(409, target + " is a participant already");
    }
    group.participants.push_back(target);
    if (target == group.owner) {
      pushChanged(group);
    } else {
      push(target, kGroupPath, "POST", toJson(group));
      pushChanged(group, target);
    }
    return Reply::ok();
  }
  std::lock_guard lock(mutex_);
  auto& group = owned(request);
  if (one) {
    if (!removeParticipant(group, target)) throw Refusal(404, target + " is not a participant");
  } else {
    for (const auto& participant : std::vector<std::string>(group.participants)) {
      removeParticipant(group, participant);
    }
  }
  pushChanged(group);
  return Reply::ok();
}

Reply Groups::leave(const ResourceRequest& request) {
  requireExactPath(request);
  std::lock_guard lock(mutex_);
  auto& group = existing(request);
  if (!removeParticipant(group, request.userId)) {
    throw Refusal(404, request.userId + " is not a participant of " + group.id);
  }
  pushChanged(group);
  return Reply::ok();
}

Reply Groups::leaveAll(const ResourceRequest& request) {
  requireExactPath(request);
  std::lock_guard lock(mutex_);
  for (auto& group : groups_) {
    if (removeParticipant(group, request.userId)) pushChanged(group);
  }
  return Reply::ok();
}

std::optional<json> Groups::group(std::string_view groupId) const {
  std::lock_guard lock(mutex_);
  for (const auto& group : groups_) {
    if (group.id == groupId) return toJson(group);
  }
  return std::nullopt;
}

std::vector<json> Groups::groups() const {
  std::lock_guard lock(mutex_);
  std::vector<json> all;
  for (const auto& group : groups_) all.push_back(toJson(group));
  return all;
}

void Groups::checkGroup(const json& group, std::string_view where,
                        const std::function<bool(std::string_view)>& knows) {
  onlyKnownKeys(group, {"groupId", "chatId", "name", "owner", "participants", "ringingStrategy"},
                where);
  identifier(group, "groupId", where);
  text(group, "name", where);
  optionalText(group, "chatId", where);
  const auto owner = text(group, "owner", where);
  if (!knows(owner)) throw Refusal(400, memberName(where, "owner") + ": no user \"" + owner + "\"");
  const auto participants = userList(group, "participants", where, false);
  for (std::size_t i = 0; i < participants.size(); ++i) {
    if (!knows(participants[i])) {
      throw Refusal(400,
                    memberName(where, "participants") + ": no user \"" + participants[i] + "\"");
    }
    if (std::count(participants.begin(), participants.end(), participants[i]) > 1) {
      throw Refusal(400,
                    memberName(where, "participants") + " names " + participants[i] + " twice");
    }
  }
  if (const auto* strategy = member(group, "ringingStrategy", JsonKind::object, where, false)) {
    ringingStrategy(*strategy, std::string(where) + "ringingStrategy.");
  }
}

Groups::Group Groups::fromFixture(const json& group) {
  Group result;
  result.id = group.at("groupId").get<std::string>();
  result.chatId = optionalText(group, "chatId").value_or("chat-" + result.id);
  result.name = group.at("name").get<std::string>();
  result.owner = group.at("owner").get<std::string>();
  result.participants = userList(group, "participants", "", false);
  const auto* strategy = member(group, "ringingStrategy", JsonKind::object, "", false);
  result.ringingStrategy = strategy ? ringingStrategy(*strategy, "") : kSimultaneous;
  return result;
}

void Groups::store(Group group) {
  std::lock_guard lock(mutex_);
  if (auto* existing = find(group.id)) {
    *existing = std::move(group);
  } else {
    groups_.push_back(std::move(group));
  }
}

void Groups::addGroup(const json& group) {
  try {
    checkGroup(group, "", [this](std::string_view user) { return context_.knows(user); });
  } catch (const Refusal& refusal) {
    throw std::invalid_argument(refusal.what());
  }
  store(fromFixture(group));
}

void Groups::checkFixture(const json& part, const UserIds& users) {
  if (!part.is_array()) throw Refusal(400, "\"groups\" must be a list");
  UserIds ids;
  for (std::size_t i = 0; i < part.size(); ++i) {
    const auto where = entryWhere("", "groups", i);
    checkGroup(part[i], where, [&](std::string_view user) { return users.contains(user); });
    if (!ids.insert(part[i].at("groupId").get<std::string>()).second) {
      throw Refusal(400, memberName(where, "groupId") + " is not unique");
    }
  }
}

void Groups::loadFixture(const json& part) {
  for (const auto& group : part) store(fromFixture(group));
}

}  // namespace kel::emulator
