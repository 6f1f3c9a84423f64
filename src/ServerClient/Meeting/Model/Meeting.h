#pragma once

/// @file
/// A meeting: a scheduled conference room with its owner, the people invited, a validity period,
/// its address, whether it asks for a password and whether it is recorded.
///
/// ```
/// {"id": "m1", "name": "Board", "user": <User>, "participants": [{"email": "a@b"}],
///  "validSince": 1700000000000, "validUntil": 1700003600000, "url": "https://...",
///  "isPasswordProtected": false, "record": {"type": "all"}}
/// ```
///
/// Instants are milliseconds since the Unix epoch on the wire. Every key is required. The owner
/// ("user") is always the first participant: decoding puts an entry made from the owner's e-mail,
/// first mobile phone and id in front of the listed participants.

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

#include "ServerClient/User/Model/User.h"

namespace kel {

/// One meeting (JSON form in Meeting.h), as MeetingsService answers it and MeetingsEventHandler
/// announces it. A plain value.
struct Meeting {
  /// One person invited, or the owner (the first entry). Keys are written only when present.
  struct Participant {
    std::optional<std::string> email{};   ///< "email"
    std::optional<std::string> phone{};   ///< "phone"
    std::optional<std::string> userId{};  ///< "userId": set for a user of the server
    /// Field-by-field equality.
    bool operator==(const Participant&) const = default;
  };

  /// Whether the meeting is recorded.
  struct Record {
    std::string type{};  ///< "type": "all" or "none"
    /// Everything is recorded ("all").
    bool isActive() const noexcept { return type == "all"; }
    /// Field-by-field equality.
    bool operator==(const Record&) const = default;
  };

  std::string id{};    ///< "id": what the meeting operations take
  std::string name{};  ///< "name", for display
  User user{};         ///< "user": the owner's user record
  /// "participants", after an entry for the owner (made from "user"; see Meeting.h).
  std::vector<Participant> participants{};
  std::chrono::system_clock::time_point validSince{};  ///< "validSince": when the room opens
  std::chrono::system_clock::time_point validUntil{};  ///< "validUntil": when it closes
  std::string url{};                                   ///< "url": the address to join it at
  bool isPasswordProtected = false;  ///< "isPasswordProtected": joining asks for a password
  Record record{};                   ///< "record"

  /// Field-by-field equality.
  bool operator==(const Meeting&) const = default;
};
BOOST_DESCRIBE_STRUCT(Meeting::Participant, (), (email, phone, userId))
BOOST_DESCRIBE_STRUCT(Meeting::Record, (), (type))
BOOST_DESCRIBE_STRUCT(Meeting, (),
                      (id, name, user, participants, validSince, validUntil, url,
                       isPasswordProtected, record))

/// Reads a participant; every key may be absent or null. Throws (nlohmann's errors or
/// std::invalid_argument) for a value of the wrong JSON type, which kel::from reports as
/// GenericError(decoding); so do the readers below, also for a missing required key.
void from_json(const nlohmann::json& json, Meeting::Participant& participant);
/// Writes the present values only.
void to_json(nlohmann::json& json, const Meeting::Participant& participant);
/// Reads "type" (required).
void from_json(const nlohmann::json& json, Meeting::Record& record);
/// Writes "type".
void to_json(nlohmann::json& json, const Meeting::Record& record);
/// Reads a meeting, with the owner's entry first among the participants (see Meeting.h).
void from_json(const nlohmann::json& json, Meeting& meeting);
/// The nine keys, participants as held (the owner's entry included) and instants in
/// milliseconds, so that a meeting encoded and decoded again gains a second owner entry.
void to_json(nlohmann::json& json, const Meeting& meeting);

}  // namespace kel
