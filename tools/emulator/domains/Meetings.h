#pragma once

// Meetings: scheduled conference rooms, owned by the user who creates them. A meeting is answered
//
//   {"id", "name", "user": <the owner's user record>, "participants": [{"email"?, "phone"?,
//    "userId"?}, ...], "validSince", "validUntil" (milliseconds), "url", "isPasswordProtected",
//    "record": {"type": "all" | "none"}}
//
// The owner is not among "participants" (clients put the owner in front themselves). An invited
// participant whose e-mail address or phone number is a known user's becomes a registered
// participant, with that "userId".
//
//   POST   /meetings        an invitation {"name", "participants": [{"sendSMS"?, "phone"?,
//                           "email"?}], "language", "validSince", "validUntil"?, "password"?,
//                           "record": {"type"}}; answers the new meeting ("meeting-<n>", its
//                           url, the requester as owner). Without "validUntil" a meeting lasts
//                           a day.
//   GET    /meetings?name=&phone=&language=&validUntil=&all=true
//                           the requester's meetings (all=true: also those they are a registered
//                           participant of), each criterion given narrowing: name contained,
//                           case-insensitively; a participant with that phone; that language;
//                           still valid at that instant
//   GET    /meetings/<id>   the meeting (anyone may read it)
//   PUT    /meetings/<id>?sendInvites=true|false
//                           a new invitation replaces the meeting's; owner only (403)
//   DELETE /meetings/<id>   owner only
//
// Events, path "/meetings/<id>", body the meeting (for DELETE as it was), each user once:
//   created    "POST"    owner and registered participants
//   changed    "PUT"     owner and the registered participants that stay
//              "POST"    registered participants added by the change
//              "DELETE"  registered participants removed by the change
//   deleted    "DELETE"  owner and registered participants

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/ResourceRouter.h"
#include "emulator/domains/Domain.h"

namespace kel::emulator {

class Meetings {
 public:
  explicit Meetings(DomainContext context);

  Meetings(const Meetings&) = delete;
  Meetings& operator=(const Meetings&) = delete;

  void install(ResourceRouter& resources);

  /// The meeting as answered; nothing for an unknown id.
  std::optional<nlohmann::json> meeting(std::string_view id) const;
  /// Every meeting as answered, in the order they were created.
  std::vector<nlohmann::json> meetings() const;

  /// The fixture's "meetings": invitations with "id" and "owner" (a user id) besides; "url"
  /// may be given too.
  static void checkFixture(const nlohmann::json& part, const UserIds& users);
  void loadFixture(const nlohmann::json& part);

 private:
  struct Meeting {
    std::string id;
    std::string owner;
    std::string name;
    std::string language;
    std::int64_t validSince = 0;
    std::int64_t validUntil = 0;
    std::string url;
    std::optional<std::string> password;
    std::string record;
    nlohmann::json participants;  // as answered
  };

  /// The invitation's members into `meeting` (all but id, owner and url); throws Refusal(400).
  static void readInvitation(const nlohmann::json& invitation, std::string_view where,
                             Meeting& meeting);
  /// Sets the participants' "userId" of the known users they name.
  void registerParticipants(Meeting& meeting) const;

  // With mutex_ held:
  nlohmann::json toJson(const Meeting& meeting) const;
  Meeting* find(std::string_view id);
  Meeting& owned(const ResourceRequest& request);
  /// The owner and the registered participants, each once.
  static std::vector<std::string> concerned(const Meeting& meeting);
  void push(const std::vector<std::string>& users, std::string_view method, const Meeting& meeting);

  Reply create(const ResourceRequest& request);
  Reply search(const ResourceRequest& request);
  Reply update(const ResourceRequest& request);

  DomainContext context_;
  mutable std::mutex mutex_;       // guards meetings_ and created_
  std::vector<Meeting> meetings_;  // in the order of creation
  std::uint64_t created_ = 0;      // numbers the ids
};

}  // namespace kel::emulator
