#pragma once

// Presence: every known user has a presence record
//
//   {"address": "kel-user:<id>", "online", "activity", "username", "domain", "role",
//    "displayName"[, "mood", "note", "avatar", "avatarUrl"]}
//
// "username", "domain" and "role" come from the user record; until set, "online" is false,
// "activity" is "offline", "displayName" is the user's alias, and the bracketed keys are absent.
// An address is "kel-user:<id>", the bare "<id>", or "<username>@<domain>" of a user record; any
// other is answered 404.
//
//   POST /presence        {"address": a}: subscribes the requesting socket to a's changes;
//                         answers a's record
//   POST /batch/presence  [a, ...]: subscribes to each; answers the records of the known
//                         addresses in the order asked (unknown ones are left out)
//   GET  /presence/<a>    a's record; ?withoutAvatar=true leaves "avatar" out
//   PUT  /presence/<a>    one's own presence only (403 otherwise): the body's "online" (true or
//                         false), "activity", "displayName", "avatar", "avatarUrl", "note",
//                         "mood" (texts) replace the record's; null restores the default (no
//                         avatar); other keys are ignored. Answers the new record and pushes
//                         "PUT" "/presence/kel-user:<id>" with it to every subscribed socket.
//
// Subscriptions belong to sockets: a socket that has closed is forgotten at the next change.

#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/ResourceRouter.h"
#include "emulator/domains/Domain.h"

namespace kel::emulator {

class Presences {
 public:
  explicit Presences(DomainContext context);

  Presences(const Presences&) = delete;
  Presences& operator=(const Presences&) = delete;

  void install(ResourceRouter& resources);

  /// The id of the user that the address names (see above), if known.
  std::optional<std::string> resolve(std::string_view address) const;
  /// The user's record as answered, avatar included; nothing for an unknown user.
  std::optional<nlohmann::json> presence(std::string_view userId) const;
  /// Changes the user's record as PUT does, without an event. Throws std::invalid_argument for
  /// an unknown user or a malformed value.
  void set(std::string_view userId, const nlohmann::json& fields);
  /// The sockets subscribed to the user's changes.
  std::set<SocketId> subscribers(std::string_view userId) const;

  /// The fixture's "presences": {"<user id>": {fields as PUT takes them}, ...}; unknown keys are
  /// refused there.
  static void checkFixture(const nlohmann::json& part, const UserIds& users);
  void loadFixture(const nlohmann::json& part);

 private:
  static void checkFields(const nlohmann::json& fields, std::string_view where);
  std::string userFor(std::string_view address) const;
  void apply(const std::string& userId, const nlohmann::json& fields);
  nlohmann::json record(const std::string& userId, bool withAvatar = true) const;
  Reply subscribe(const ResourceRequest& request);
  Reply update(const ResourceRequest& request);

  DomainContext context_;
  mutable std::mutex mutex_;                                   // guards fields_ and subscribers_
  std::map<std::string, nlohmann::json, std::less<>> fields_;  // what was set, by user id
  std::map<std::string, std::set<SocketId>, std::less<>> subscribers_;  // by user id
};

}  // namespace kel::emulator
