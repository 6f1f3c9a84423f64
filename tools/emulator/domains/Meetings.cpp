#include "emulator/domains/Meetings.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <utility>

namespace kel::emulator {

using nlohmann::json;

namespace {

constexpr std::int64_t kDefaultLength = 24LL * 60 * 60 * 1000;

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

}  // namespace

Meetings::Meetings(DomainContext context) : context_(std::move(context)) {}

void Meetings::install(ResourceRouter& resources) {
  auto handle = [this](Reply (Meetings::*method)(const ResourceRequest&)) {
    return refusing([this, method](const ResourceRequest& r) { return (this->*method)(r); });
  };
  resources.route("POST", "/meetings", handle(&Meetings::create));
  resources.route("GET", "/meetings", handle(&Meetings::search));
  resources.route("PUT", "/meetings/:id", handle(&Meetings::update));
  resources.route("GET", "/meetings/:id", refusing([this](const ResourceRequest& r) {
                    requireExactPath(r);
                    std::lock_guard lock(mutex_);
                    const auto* meeting = find(*r.param("id"));
                    if (meeting == nullptr) throw Refusal(404, "no meeting " + *r.param("id"));
                    return Reply::ok(toJson(*meeting));
                  }));
  resources.route("DELETE", "/meetings/:id", refusing([this](const ResourceRequest& r) {
                    requireExactPath(r);
                    std::lock_guard lock(mutex_);
                    const auto meeting = owned(r);
                    std::erase_if(meetings_, [&](const Meeting& m) { return m.id == meeting.id; });
                    push(concerned(meeting), "DELETE", meeting);
                    return Reply::ok();
                  }));
}

void Meetings::readInvitation(const json& invitation, std::string_view where, Meeting& meeting) {
  meeting.name = text(invitation, "name", where);
  meeting.language = text(invitation, "language", where);
  meeting.validSince = instant(invitation, "validSince", where);
  meeting.validUntil = optionalInstant(invitation, "validUntil", where)
                           .value_or(meeting.validSince + kDefaultLength);
  if (meeting.validUntil < meeting.validSince) {
    throw Refusal(400, memberName(where, "validUntil") + " must not be before \"validSince\"");
  }
  meeting.password = optionalText(invitation, "password", where);
  const auto recordWhere = std::string(where) + "record.";
  meeting.record =
      text(*member(invitation, "record", JsonKind::object, where), "type", recordWhere);
  if (meeting.record != "all" && meeting.record != "none") {
    throw Refusal(400, memberName(recordWhere, "type") + " must be all or none");
  }
  const auto& invited = *member(invitation, "participants", JsonKind::list, where);
  meeting.participants = json::array();
  for (std::size_t i = 0; i < invited.size(); ++i) {
    const auto entry = entryWhere(where, "participants", i);
    member(invited[i], "sendSMS", JsonKind::boolean, entry, false);
    json participant = json::object();
    for (const auto* key : {"email", "phone"}) {
      if (auto value = optionalText(invited[i], key, entry)) participant[key] = *value;
    }
    if (participant.empty()) {
      throw Refusal(400, memberName(entry, "") + " needs an \"email\" or a \"phone\"");
    }
    meeting.participants.push_back(std::move(participant));
  }
}

void Meetings::registerParticipants(Meeting& meeting) const {
  std::vector<json> users;
  for (const auto& id : context_.userIds()) {
    if (auto user = context_.user(id)) users.push_back(std::move(*user));
  }
  for (auto& participant : meeting.participants) {
    for (const auto& user : users) {
      const bool byEmail = participant.contains("email") &&
                           user.value("email", "") == participant["email"].get<std::string>();
      const auto phones = user.value("mobilePhone", json::array());
      const bool byPhone =
          participant.contains("phone") &&
          std::find(phones.begin(), phones.end(), participant["phone"]) != phones.end();
      if (byEmail || byPhone) {
        participant["userId"] = user["id"];
        break;
      }
    }
  }
}

json Meetings::toJson(const Meeting& meeting) const {
  return {{"id", meeting.id},
          {"name", meeting.name},
          {"user", context_.user(meeting.owner).value_or(json{{"id", meeting.owner}})},
          {"participants", meeting.participants},
          {"validSince", meeting.validSince},
          {"validUntil", meeting.validUntil},
          {"url", meeting.url},
          {"isPasswordProtected", meeting.password.has_value()},
          {"record", {{"type", meeting.record}}}};
}

Meetings::Meeting* Meetings::find(std::string_view id) {
  auto found = std::find_if(meetings_.begin(), meetings_.end(),
                            [&](const Meeting& m) { return m.id == id; });
  return found == meetings_.end() ? nullptr : &*found;
}

Meetings::Meeting& Meetings::owned(const ResourceRequest& request) {
  const auto id = *request.param("id");
  auto* meeting = find(id);
  if (meeting == nullptr) throw Refusal(404, "no meeting " + id);
  if (meeting->owner != request.userId) throw Refusal(403, "only the owner changes a meeting");
  return *meeting;
}

std::vector<std::string> Meetings::concerned(const Meeting& meeting) {
  std::vector<std::string> users{meeting.owner};
  for (const auto& participant : meeting.participants) {
    if (participant.contains("userId") &&
        !contains(users, participant["userId"].get<std::string>())) {
      users.push_back(participant["userId"].get<std::string>());
    }
  }
  return users;
}

void Meetings::push(const std::vector<std::string>& users, std::string_view method,
                    const Meeting& meeting) {
  const auto body = toJson(meeting);
  for (const auto& user : users) {
    context_.push(Recipients::user(user), "/meetings/" + meeting.id, method, body);
  }
}

Reply Meetings::create(const ResourceRequest& request) {
  requireExactPath(request);
  Meeting meeting;
  readInvitation(request.body, "", meeting);
  onlyKnownKeys(
      request.body,
      {"name", "participants", "language", "validSince", "validUntil", "password", "record"}, "");
  meeting.owner = request.userId;
  registerParticipants(meeting);
  std::lock_guard lock(mutex_);
  do {
    meeting.id = "meeting-" + std::to_string(++created_);
  } while (find(meeting.id) != nullptr);
  meeting.url = "https://meet.emulator.kel/" + meeting.id;
  meetings_.push_back(std::move(meeting));
  push(concerned(meetings_.back()), "POST", meetings_.back());
  return Reply::ok(toJson(meetings_.back()));
}

Reply Meetings::search(const ResourceRequest& request) {
  requireExactPath(request);
  const auto flag = [&](std::string_view key) {
    const auto value = request.queryValue(key);
    if (value && *value != "true" && *value != "false") {
      throw Refusal(400, std::string(key) + " must be true or false");
    }
    return value == "true";
  };
  const bool all = flag("all");
  const auto name = request.queryValue("name");
  const auto phone = request.queryValue("phone");
  const auto language = request.queryValue("language");
  std::optional<double> validUntil;
  if (const auto text = request.queryValue("validUntil")) {
    double value = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (error != std::errc() || end != text->data() + text->size() || !std::isfinite(value)) {
      throw Refusal(400, "validUntil must be a number of milliseconds");
    }
    validUntil = value;
  }
  std::lock_guard lock(mutex_);
  json answer = json::array();
  for (const auto& meeting : meetings_) {
    const auto users = concerned(meeting);
    if (meeting.owner != request.userId && !(all && contains(users, request.userId))) continue;
    if (name && lowerCase(meeting.name).find(lowerCase(*name)) == std::string::npos) continue;
    if (language && meeting.language != *language) continue;
    if (validUntil && static_cast<double>(meeting.validUntil) < *validUntil) continue;
    if (phone && std::none_of(meeting.participants.begin(), meeting.participants.end(),
                              [&](const json& p) { return p.value("phone", "") == *phone; })) {
      continue;
    }
    answer.push_back(toJson(meeting));
  }
  return Reply::ok(std::move(answer));
}

Reply Meetings::update(const ResourceRequest& request) {
  requireExactPath(request);
  const auto sendInvites = request.queryValue("sendInvites");
  if (sendInvites && *sendInvites != "true" && *sendInvites != "false") {
    throw Refusal(400, "sendInvites must be true or false");
  }
  Meeting changed;
  readInvitation(request.body, "", changed);
  onlyKnownKeys(
      request.body,
      {"name", "participants", "language", "validSince", "validUntil", "password", "record"}, "");
  registerParticipants(changed);
  std::lock_guard lock(mutex_);
  auto& meeting = owned(request);
  const auto before = concerned(meeting);
  changed.id = meeting.id;
  changed.owner = meeting.owner;
  changed.url = meeting.url;
  meeting = std::move(changed);
  const auto after = concerned(meeting);
  std::vector<std::string> added, stayed, removed;
  for (const auto& user : after) (contains(before, user) ? stayed : added).push_back(user);
  for (const auto& user : before) {
    if (!contains(after, user)) removed.push_back(user);
  }
  push(stayed, "PUT", meeting);
  push(added, "POST", meeting);
  push(removed, "DELETE", meeting);
  return Reply::ok(toJson(meeting));
}

std::optional<json> Meetings::meeting(std::string_view id) const {
  std::lock_guard lock(mutex_);
  for (const auto& meeting : meetings_) {
    if (meeting.id == id) return toJson(meeting);
  }
  return std::nullopt;
}

std::vector<json> Meetings::meetings() const {
  std::lock_guard lock(mutex_);
  std::vector<json> all;
  for (const auto& meeting : meetings_) all.push_back(toJson(meeting));
  return all;
}

void Meetings::checkFixture(const json& part, const UserIds& users) {
  if (!part.is_array()) throw Refusal(400, "\"meetings\" must be a list");
  UserIds ids;
  for (std::size_t i = 0; i < part.size(); ++i) {
    const auto where = entryWhere("", "meetings", i);
    onlyKnownKeys(part[i],
                  {"id", "owner", "url", "name", "participants", "language", "validSince",
                   "validUntil", "password", "record"},
                  where);
    Meeting meeting;
    readInvitation(part[i], where, meeting);
    optionalText(part[i], "url", where);
    const auto owner = text(part[i], "owner", where);
    if (!users.contains(owner)) {
      throw Refusal(400, memberName(where, "owner") + ": no user \"" + owner + "\"");
    }
    if (!ids.insert(identifier(part[i], "id", where)).second) {
      throw Refusal(400, memberName(where, "id") + " is not unique");
    }
  }
}

void Meetings::loadFixture(const json& part) {
  for (const auto& entry : part) {
    Meeting meeting;
    readInvitation(entry, "", meeting);
    meeting.id = entry.at("id").get<std::string>();
    meeting.owner = entry.at("owner").get<std::string>();
    meeting.url = optionalText(entry, "url").value_or("https://meet.emulator.kel/" + meeting.id);
    registerParticipants(meeting);
    std::lock_guard lock(mutex_);
    std::erase_if(meetings_, [&](const Meeting& m) { return m.id == meeting.id; });
    meetings_.push_back(std::move(meeting));
  }
}

}  // namespace kel::emulator
