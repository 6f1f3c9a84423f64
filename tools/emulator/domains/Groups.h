#pragma once

// Groups: a named, ordered list of participants (user ids), owned by one user, with a ringing
// strategy. A group is answered as
//
//   {"groupId", "chatId", "name", "participants": [user id, ...], "owner": <the owner's user
//    record>, "ringingStrategy": {"type": "simultaneous"} | {"type": "sequential", "properties":
//    {"delay", "steps"}} | {"type": "simultaneous-reduced", "properties": {"steps"}}}
//
// A new group has no participants (the owner adds whoever shall ring), the chat "chat-<group
// id>" and the simultaneous strategy. Anyone may read a group; only its owner changes it (403).
//
//   POST   /usersGroup {"name", "groupId"?}      creates (409 for a taken id; "group-<n>" when
//                                                none is given); answers the group
//   GET    /usersGroup?participating=true        the groups the requester participates in
//   GET    /usersGroup?participating=false       the groups the requester owns
//   GET    /usersGroup                           both
//   GET    /usersGroup/<id>                      the group
//   PUT    /usersGroup/<id>                      {"ringingStrategy": {...}} sets the strategy
//   DELETE /usersGroup/<id>                      deletes the group
//   POST   /usersGroup/<id>/participants         {"targetUserId"}: adds a known user at the end
//                                                (409 when already there)
//   DELETE /usersGroup/<id>/participants         {"targetUserId"}: removes one (404 when not
//                                                there); without it (a body of [] or {}): all
//   PUT    /usersGroup/<id>/participants         {"participants": [...]}: the same users in a new
//                                                order (400 for anything but a permutation)
//   HEAD   /usersGroup/<id>/participants/<user>  200 for a participant, 404 otherwise
//   DELETE /usersGroup/<id>/leave                the requester leaves (404 when not there; the
//                                                client sends "/usersGroup/<id>//leave")
//   DELETE /usersGroups/participations           the requester leaves every group
// Changes answer 200 {}, unless said otherwise above.
//
// Events, each user once (to all of their sockets), path "/usersGroup" unless said otherwise:
//   created                 "POST" group                          owner and participants
//   participant added       "POST" group                          the added user
//                           "PUT" group                           owner and the others
//   any other change        "PUT" group                           owner and participants
//   participant removed     "DELETE" "/usersGroup/participant"    each removed user (also
//     (removed, all, left)           {"groupId"}                  the owner if removed)
//   deleted                 "DELETE" {"groupId"}                  owner and participants
// The path carries no group id so that no id can read as "/usersGroup/participant".

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/ResourceRouter.h"
#include "emulator/domains/Domain.h"

namespace kel::emulator {

class Groups {
 public:
  explicit Groups(DomainContext context);

  Groups(const Groups&) = delete;
  Groups& operator=(const Groups&) = delete;

  void install(ResourceRouter& resources);

  /// The group as answered; nothing for an unknown id.
  std::optional<nlohmann::json> group(std::string_view groupId) const;
  /// Every group as answered, in the order they were created.
  std::vector<nlohmann::json> groups() const;
  /// Adds a group, or replaces the one with its id, without events: {"groupId", "name",
  /// "owner": <user id>, "participants"?: [user id, ...], "chatId"?, "ringingStrategy"?}.
  /// Throws std::invalid_argument for a malformed group or an unknown user.
  void addGroup(const nlohmann::json& group);

  /// The fixture's "groups": a list of groups as addGroup takes them.
  static void checkFixture(const nlohmann::json& part, const UserIds& users);
  void loadFixture(const nlohmann::json& part);

 private:
  struct Group {
    std::string id;
    std::string chatId;
    std::string name;
    std::string owner;
    std::vector<std::string> participants;
    nlohmann::json ringingStrategy;
  };

  static void checkGroup(const nlohmann::json& group, std::string_view where,
                         const std::function<bool(std::string_view)>& knows);
  static Group fromFixture(const nlohmann::json& group);
  void store(Group group);

  // With mutex_ held:
  nlohmann::json toJson(const Group& group) const;
  Group* find(std::string_view groupId);
  Group& existing(const ResourceRequest& request);
  Group& owned(const ResourceRequest& request);
  /// The owner and the participants, each once.
  static std::vector<std::string> concerned(const Group& group);
  /// Pushes "PUT" with the group to its owner and participants but `except`.
  void pushChanged(const Group& group, std::string_view except = {});
  /// Removes the participant, pushing the participant event to them; the caller pushes the change.
  bool removeParticipant(Group& group, std::string_view userId);
  void push(std::string_view userId, std::string_view path, std::string_view method,
            const nlohmann::json& body);

  Reply create(const ResourceRequest& request);
  Reply list(const ResourceRequest& request);
  Reply participants(const ResourceRequest& request);
  Reply leave(const ResourceRequest& request);
  Reply leaveAll(const ResourceRequest& request);

  DomainContext context_;
  mutable std::mutex mutex_;   // guards groups_ and created_
  std::vector<Group> groups_;  // in the order of creation
  std::uint64_t created_ = 0;  // numbers the ids made up for groups
};

}  // namespace kel::emulator
