#pragma once

// A meeting: a scheduled conference room with its owner, the people invited, a validity period,
// its address, whether it asks for a password and whether it is recorded.
//
//   {"id": "m1", "name": "Board", "user": <User>, "participants": [{"email": "a@b"}],
//    "validSince": 1700000000000, "validUntil": 1700003600000, "url": "https://...",
//    "isPasswordProtected": false, "record": {"type": "all"}}
//
// Instants are milliseconds since the Unix epoch on the wire. Every key is required. The owner
// ("user") is always the first participant: decoding puts an entry made from the owner's e-mail,
// first mobile phone and id in front of the listed participants.

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

#include "ServerClient/User/Model/User.h"

namespace kel {

struct Meeting {
  /// Keys are written only when present.
  struct Participant {
    std::optional<std::string> email{};
    std::optional<std::string> phone{};
    std::optional<std::string> userId{};
    bool operator==(const Participant&) const = default;
  };

  struct Record {
    std::string type{};
    /// Everything is recorded ("all").
    bool isActive() const noexcept { return type == "all"; }
    bool operator==(const Record&) const = default;
  };

  std::string id{};
  std::string name{};
  User user{};
  std::vector<Participant> participants{};
  std::chrono::system_clock::time_point validSince{};
  std::chrono::system_clock::time_point validUntil{};
  std::string url{};
  bool isPasswordProtected = false;
  Record record{};

  bool operator==(const Meeting&) const = default;
};
BOOST_DESCRIBE_STRUCT(Meeting::Participant, (), (email, phone, userId))
BOOST_DESCRIBE_STRUCT(Meeting::Record, (), (type))
BOOST_DESCRIBE_STRUCT(Meeting, (),
                      (id, name, user, participants, validSince, validUntil, url,
                       isPasswordProtected, record))

void from_json(const nlohmann::json& json, Meeting::Participant& participant);
void to_json(nlohmann::json& json, const Meeting::Participant& participant);
void from_json(const nlohmann::json& json, Meeting::Record& record);
void to_json(nlohmann::json& json, const Meeting::Record& record);
void from_json(const nlohmann::json& json, Meeting& meeting);
/// The nine keys, participants as held (the owner's entry included) and instants in
/// milliseconds, so that a meeting encoded and decoded again gains a second owner entry.
void to_json(nlohmann::json& json, const Meeting& meeting);

}  // namespace kel
