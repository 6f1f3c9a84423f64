#pragma once

// What the user sends to create or change a meeting, and the criteria of a meeting search.
//
//   {"name": "Board", "participants": [{"sendSMS": true, "phone": "+100"}], "language": "en",
//    "validSince": 1700000000000, "validUntil": 1700003600000, "password": "a1B2c3D4",
//    "record": {"type": "none"}}
//
// Keys are written in that order; "validUntil", "password" and each participant's keys only when
// present. Instants go out as whole milliseconds since the Unix epoch.

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

namespace kel {

struct MeetingInvitation {
  /// Keys "sendSMS", "phone", "email", in that order, each only when present.
  struct Participant {
    std::optional<bool> sendSMS{};
    std::optional<std::string> phone{};
    std::optional<std::string> email{};
    bool operator==(const Participant&) const = default;
  };

  struct Record {
    /// "all" when the meeting is recorded, otherwise "none".
    explicit Record(bool recordMeeting) : type(recordMeeting ? "all" : "none") {}
    std::string type;
    bool operator==(const Record&) const = default;
  };

  /// With `isPasswordProtected` the invitation carries a fresh random password of 8 letters and
  /// digits, different for each invitation made; otherwise none.
  MeetingInvitation(std::string name, std::vector<Participant> participants, std::string language,
                    std::chrono::system_clock::time_point validSince,
                    std::optional<std::chrono::system_clock::time_point> validUntil,
                    std::optional<bool> sendInvites, bool isPasswordProtected, bool recordMeeting);

  std::string name;
  std::vector<Participant> participants;
  std::string language;
  std::chrono::system_clock::time_point validSince;
  std::optional<std::chrono::system_clock::time_point> validUntil;
  std::optional<std::string> password;
  Record record;
  /// Not part of the body: a change of a meeting sends it as the query key "sendInvites".
  std::optional<bool> sendInvites;

  bool operator==(const MeetingInvitation&) const = default;
};
BOOST_DESCRIBE_STRUCT(MeetingInvitation::Participant, (), (sendSMS, phone, email))
BOOST_DESCRIBE_STRUCT(MeetingInvitation::Record, (), (type))
BOOST_DESCRIBE_STRUCT(MeetingInvitation, (),
                      (name, participants, language, validSince, validUntil, password, record,
                       sendInvites))

void to_json(nlohmann::ordered_json& json, const MeetingInvitation::Participant& participant);
void to_json(nlohmann::ordered_json& json, const MeetingInvitation& invitation);
void to_json(nlohmann::json& json, const MeetingInvitation& invitation);

/// What a meeting search asks for; absent criteria are not sent.
struct MeetingSearch {
  std::optional<std::string> language{};
  std::optional<std::string> phone{};
  std::optional<std::string> name{};
  std::optional<std::chrono::system_clock::time_point> validUntil{};
  bool operator==(const MeetingSearch&) const = default;
};
BOOST_DESCRIBE_STRUCT(MeetingSearch, (), (language, phone, name, validUntil))

}  // namespace kel
