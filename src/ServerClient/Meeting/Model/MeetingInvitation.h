#pragma once

/// @file
/// What the user sends to create or change a meeting, and the criteria of a meeting search.
///
/// ```
/// {"name": "Board", "participants": [{"sendSMS": true, "phone": "+100"}], "language": "en",
///  "validSince": 1700000000000, "validUntil": 1700003600000, "password": "a1B2c3D4",
///  "record": {"type": "none"}}
/// ```
///
/// Keys are written in that order; "validUntil", "password" and each participant's keys only when
/// present. Instants go out as whole milliseconds since the Unix epoch.

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

namespace kel {

/// The body of MeetingsService::createMeeting and updateMeeting (JSON form in
/// MeetingInvitation.h). A plain value. The password it may carry is a secret: show it to those
/// who need it, never in a log (the library's record descriptions print it redacted).
struct MeetingInvitation {
  /// One person to invite. Keys "sendSMS", "phone", "email", in that order, each only when
  /// present.
  struct Participant {
    std::optional<bool> sendSMS{};       ///< "sendSMS": invite by text message too
    std::optional<std::string> phone{};  ///< "phone"
    std::optional<std::string> email{};  ///< "email"
    /// Field-by-field equality.
    bool operator==(const Participant&) const = default;
  };

  /// Whether the meeting shall be recorded.
  struct Record {
    /// "all" when the meeting is recorded, otherwise "none".
    explicit Record(bool recordMeeting) : type(recordMeeting ? "all" : "none") {}
    std::string type;  ///< "type": "all" or "none"
    /// Field-by-field equality.
    bool operator==(const Record&) const = default;
  };

  /// With `isPasswordProtected` the invitation carries a fresh random password of 8 letters and
  /// digits, different for each invitation made; otherwise none.
  MeetingInvitation(std::string name, std::vector<Participant> participants, std::string language,
                    std::chrono::system_clock::time_point validSince,
                    std::optional<std::chrono::system_clock::time_point> validUntil,
                    std::optional<bool> sendInvites, bool isPasswordProtected, bool recordMeeting);

  std::string name;                                  ///< "name"
  std::vector<Participant> participants;             ///< "participants", the owner not among them
  std::string language;                              ///< "language" of the invitations, e.g. "en"
  std::chrono::system_clock::time_point validSince;  ///< "validSince": when the room opens
  /// "validUntil": when it closes; absent leaves it to the server.
  std::optional<std::chrono::system_clock::time_point> validUntil;
  std::optional<std::string> password;  ///< "password", made by the constructor; absent: none
  Record record;                        ///< "record"
  /// Not part of the body: a change of a meeting sends it as the query key "sendInvites".
  std::optional<bool> sendInvites;

  /// Field-by-field equality, the password included.
  bool operator==(const MeetingInvitation&) const = default;
};
BOOST_DESCRIBE_STRUCT(MeetingInvitation::Participant, (), (sendSMS, phone, email))
BOOST_DESCRIBE_STRUCT(MeetingInvitation::Record, (), (type))
BOOST_DESCRIBE_STRUCT(MeetingInvitation, (),
                      (name, participants, language, validSince, validUntil, password, record,
                       sendInvites))

/// Writes the participant's present keys, in the order of the JSON form.
void to_json(nlohmann::ordered_json& json, const MeetingInvitation::Participant& participant);
/// Writes the invitation's keys in the order of the JSON form; sendInvites is not written.
void to_json(nlohmann::ordered_json& json, const MeetingInvitation& invitation);
/// The same keys as the ordered form; an nlohmann::json object keeps them sorted by name.
void to_json(nlohmann::json& json, const MeetingInvitation& invitation);

/// What a meeting search asks for (MeetingsService::meetings); absent criteria are not sent.
struct MeetingSearch {
  std::optional<std::string> language{};  ///< "language": meetings in that language
  std::optional<std::string> phone{};     ///< "phone": meetings with a participant of that phone
  std::optional<std::string> name{};      ///< "name": meetings by name
  /// "validUntil": meetings still valid at that instant (sent as whole milliseconds).
  std::optional<std::chrono::system_clock::time_point> validUntil{};
  /// Field-by-field equality.
  bool operator==(const MeetingSearch&) const = default;
};
BOOST_DESCRIBE_STRUCT(MeetingSearch, (), (language, phone, name, validUntil))

}  // namespace kel
