#pragma once

/// @file
/// Start-up data: one JSON object whose members are all optional (README.md has an example).
///
/// ```
/// "users":       [{"id", "token"?, "signInToken"?, "user"?, "credential"?, "capabilities"?,
///                  "permissions"?}, ...]
///                accounts (defaultAccount, with "user"'s members laid over the default user
///                record and the other records replacing the defaults); "token" creates a
///                session with that token, "signInToken" lets the user sign in over HTTP
/// "contacts":    {"<user id>": [contact, ...]}     UserContacts
/// "presences":   {"<user id>": {"online", ...}}    Presences
/// "directories": [{"id", "name", "type", "contacts"}, ...]   AddressBooks
/// "groups":      [{"groupId", "name", "owner", "participants", ...}, ...]   Groups
/// "meetings":    [{"id", "owner", "name", "participants", "validSince", ...}, ...]   Meetings
/// "calls":       [{"from", "to", "outcome", "durationSeconds"?, "endedAt"?}, ...]  CallHistory
/// "alertTemplates": [{"templateId", "title", "payload"}, ...]   Alerts
/// "chats":       {"<user id>": [jid, ...]}     ChatLists
/// ```
///
/// Users named anywhere must be known: added by the same fixture or before it.

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/SessionStore.h"
#include "emulator/SignIn.h"
#include "emulator/domains/Domains.h"

namespace kel::emulator {

/// Checks the whole fixture first and changes nothing when any of it is wrong: throws
/// std::invalid_argument naming the member, e.g. "\"groups[0].owner\": no user \"zed\"". Then adds
/// the users and hands each domain its part. Returns the sessions created for users with a
/// "token", in the fixture's order.
std::vector<Session> loadFixture(const nlohmann::json& fixture, SessionStore& store, SignIn& signIn,
                                 Domains& domains);

/// The JSON in the file; throws std::invalid_argument when it cannot be read or is not JSON.
nlohmann::json readFixtureFile(const std::string& path);

}  // namespace kel::emulator
