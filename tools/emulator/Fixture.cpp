#include "emulator/Fixture.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "ServerClient/Common/Json.h"

namespace kel::emulator {

using nlohmann::json;

namespace {

constexpr std::string_view kAccountRecords[] = {"credential", "capabilities", "permissions"};

/// Checks the users and returns every user id the rest may name.
UserIds checkUsers(const json& users, const SessionStore& store) {
  UserIds known;
  for (const auto& user : store.users()) known.insert(user.id);
  if (users.is_null()) return known;
  if (!users.is_array()) throw Refusal(400, "\"users\" must be a list");
  UserIds ids;
  UserIds tokens;
  for (std::size_t i = 0; i < users.size(); ++i) {
    const auto where = entryWhere("", "users", i);
    const auto& user = users[i];
    onlyKnownKeys(
        user, {"id", "token", "signInToken", "user", "credential", "capabilities", "permissions"},
        where);
    const auto id = identifier(user, "id", where);
    if (!ids.insert(id).second) throw Refusal(400, memberName(where, "id") + " is not unique");
    if (auto token = optionalText(user, "token", where)) {
      if (token->empty() || store.session(*token) || !tokens.insert(*token).second) {
        throw Refusal(400, memberName(where, "token") + " must be a new, unique, non-empty text");
      }
    }
    optionalText(user, "signInToken", where);
    member(user, "user", JsonKind::object, where, false);
    for (auto record : kAccountRecords) member(user, record, JsonKind::object, where, false);
    known.insert(id);
  }
  return known;
}

std::vector<Session> addUsers(const json& users, SessionStore& store, SignIn& signIn) {
  std::vector<Session> sessions;
  if (users.is_null()) return sessions;
  for (const auto& entry : users) {
    const auto id = entry.at("id").get<std::string>();
    auto account = defaultAccount(id, optionalText(entry, "signInToken"));
    if (const auto* user = member(entry, "user", JsonKind::object, "", false)) {
      for (const auto& [key, value] : user->items()) {
        if (key != "id") account.user[key] = value;
      }
    }
    if (const auto* record = member(entry, "credential", JsonKind::object, "", false)) {
      account.credential = *record;
    }
    if (const auto* record = member(entry, "capabilities", JsonKind::object, "", false)) {
      account.capabilities = *record;
    }
    if (const auto* record = member(entry, "permissions", JsonKind::object, "", false)) {
      account.permissions = *record;
    }
    signIn.addAccount(std::move(account));
    if (auto token = optionalText(entry, "token")) {
      sessions.push_back(store.createSession(id, std::nullopt, std::move(*token)));
    }
  }
  return sessions;
}

}  // namespace

std::vector<Session> loadFixture(const json& fixture, SessionStore& store, SignIn& signIn,
                                 Domains& domains) {
  const json none;
  auto part = [&](const char* key) -> const json& {
    auto found = fixture.find(key);
    return found == fixture.end() ? none : *found;
  };
  if (!fixture.is_object()) throw std::invalid_argument("a fixture is a JSON object");
  try {
    onlyKnownKeys(fixture,
                  {"users", "contacts", "presences", "directories", "groups", "meetings", "calls",
                   "alertTemplates", "chats"},
                  "");
    const auto users = checkUsers(part("users"), store);
    if (!part("contacts").is_null()) UserContacts::checkFixture(part("contacts"), users);
    if (!part("presences").is_null()) Presences::checkFixture(part("presences"), users);
    if (!part("directories").is_null()) AddressBooks::checkFixture(part("directories"));
    if (!part("groups").is_null()) Groups::checkFixture(part("groups"), users);
    if (!part("meetings").is_null()) Meetings::checkFixture(part("meetings"), users);
    if (!part("calls").is_null()) CallHistory::checkFixture(part("calls"), users);
    if (!part("alertTemplates").is_null()) Alerts::checkFixture(part("alertTemplates"));
    if (!part("chats").is_null()) ChatLists::checkFixture(part("chats"), users);
  } catch (const Refusal& refusal) {
    throw std::invalid_argument(refusal.what());
  }
  auto sessions = addUsers(part("users"), store, signIn);
  if (!part("contacts").is_null()) domains.userContacts.loadFixture(part("contacts"));
  if (!part("presences").is_null()) domains.presences.loadFixture(part("presences"));
  if (!part("directories").is_null()) domains.addressBooks.loadFixture(part("directories"));
  if (!part("groups").is_null()) domains.groups.loadFixture(part("groups"));
  if (!part("meetings").is_null()) domains.meetings.loadFixture(part("meetings"));
  if (!part("calls").is_null()) domains.callHistory.loadFixture(part("calls"));
  if (!part("alertTemplates").is_null()) domains.alerts.loadFixture(part("alertTemplates"));
  if (!part("chats").is_null()) domains.chatLists.loadFixture(part("chats"));
  return sessions;
}

json readFixtureFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::invalid_argument("cannot read " + path);
  std::ostringstream content;
  content << in.rdbuf();
  const auto text = content.str();
  if (auto fixture = parseJson(text)) return std::move(*fixture);
  // Where it goes wrong, from a parse that keeps nothing (so no depth can hurt).
  std::string why = "nested too deeply, or holding a NUL character";
  try {
    [[maybe_unused]] const auto nothing =
        json::parse(text, [](int, json::parse_event_t, json&) { return false; });
  } catch (const json::exception& e) {
    why = e.what();
  }
  throw std::invalid_argument(path + " is not JSON: " + why);
}

}  // namespace kel::emulator
