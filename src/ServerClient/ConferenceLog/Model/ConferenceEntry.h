#pragma once

// One entry of the conference log: a conference room with the invitations sent in it, who took
// part, the transfers made, and how each invited candidate's call ended.
//
//   {"id": "c1", "roomId": "r1", "state": "finished", "createdAt": 1700000000000,
//    "finishedAt": 1700000060000, "type": "call",
//    "invites": [{"from": "u1", "to": "u2", "state": "ACCEPTED", "group": false, "error": 486,
//                 "mediatypes": {"audio": true},
//                 "candidates": [{"address": "kel-user:u2", "endReason": 200}]}],
//    "participants": [{"address": "kel-user:u1", "createdAt": 1700000000000}],
//    "transfers": [{"from": "u1", "to": "u3", "state": "DECLINED", "idInvite": "i1"}]}
//
// Time stamps are kept as the numbers the server wrote. Every key is required but "type",
// "error" and a participant's "finishedAt". The enumerations decode tolerantly:
//   ConferenceCode       any other integer, or no integer at all, reads as ok (a candidate's
//                        endReason); an invitation's "error" with another code reads as absent
//   state texts          "active" or else finished; the call states or else unknown; the
//                        conference types or else unknown
// but a state or type that is not a text fails, as does any missing required key. One failing
// nested record fails the entry.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>
#include <nlohmann/json_fwd.hpp>

namespace kel {

/// How a call attempt ended, by its SIP final response code.
enum class ConferenceCode { decline = 603, ok = 200, busy = 486, cancel = 487, timeout = 408 };
BOOST_DESCRIBE_ENUM(ConferenceCode, decline, ok, busy, cancel, timeout)

/// The case of a known code; nothing for any other.
std::optional<ConferenceCode> conferenceCodeFrom(std::int64_t code) noexcept;
/// The case of an integer JSON value with a known code; ok for anything else. Never throws.
ConferenceCode decodeConferenceCode(const nlohmann::json& json) noexcept;

struct ConferenceEntry {
  enum class ConferenceState { finished, active };
  enum class ConferenceType { call, meeting, unknown };
  /// The outcome of an invitation or a transfer.
  enum class CallState { declined, cancelByCreator, timeout, accepted, unknown };

  struct InvitationInfo {
    using State = CallState;
    struct CandidateInfo {
      std::string address{};
      ConferenceCode endReason = ConferenceCode::ok;
      bool operator==(const CandidateInfo&) const = default;
    };

    std::string from{};
    std::string to{};
    std::vector<CandidateInfo> candidates{};
    State state = State::unknown;
    bool group = false;
    std::optional<ConferenceCode> error{};
    /// One flag per media type name ("audio", "video", ...).
    std::map<std::string, bool> mediatypes{};
    bool operator==(const InvitationInfo&) const = default;
  };

  struct ParticipantInfo {
    std::string address{};
    double createdAt = 0;
    std::optional<double> finishedAt{};
    bool operator==(const ParticipantInfo&) const = default;
  };

  struct TransferInfo {
    using State = CallState;
    std::string from{};
    std::string to{};
    State state = State::unknown;
    std::string idInvite{};
    bool operator==(const TransferInfo&) const = default;
  };

  std::string id{};
  std::string roomId{};
  ConferenceState state = ConferenceState::finished;
  double createdAt = 0;
  double finishedAt = 0;
  std::vector<InvitationInfo> invites{};
  std::vector<ParticipantInfo> participants{};
  std::vector<TransferInfo> transfers{};
  std::optional<ConferenceType> type{};

  bool operator==(const ConferenceEntry&) const = default;
};
BOOST_DESCRIBE_STRUCT(ConferenceEntry::InvitationInfo::CandidateInfo, (), (address, endReason))
BOOST_DESCRIBE_STRUCT(ConferenceEntry::InvitationInfo, (),
                      (from, to, candidates, state, group, error, mediatypes))
BOOST_DESCRIBE_STRUCT(ConferenceEntry::ParticipantInfo, (), (address, createdAt, finishedAt))
BOOST_DESCRIBE_STRUCT(ConferenceEntry::TransferInfo, (), (from, to, state, idInvite))
BOOST_DESCRIBE_STRUCT(ConferenceEntry, (),
                      (id, roomId, state, createdAt, finishedAt, invites, participants, transfers,
                       type))

/// "finished", "active".
std::string_view rawValue(ConferenceEntry::ConferenceState state) noexcept;
/// "call", "meeting", "unknown".
std::string_view rawValue(ConferenceEntry::ConferenceType type) noexcept;
/// "DECLINED", "DECLINED_BY_CREATOR", "DECLINED_BY_TIMEOUT", "ACCEPTED", "unknown".
std::string_view rawValue(ConferenceEntry::CallState state) noexcept;

/// The tolerant enumeration decoders (see the top); a value that is not a text throws
/// GenericError(underlying(the reader's error)).
ConferenceEntry::ConferenceState decodeConferenceState(const nlohmann::json& json);
ConferenceEntry::ConferenceType decodeConferenceType(const nlohmann::json& json);
ConferenceEntry::CallState decodeCallState(const nlohmann::json& json);

void from_json(const nlohmann::json& json, ConferenceEntry::InvitationInfo::CandidateInfo& info);
void from_json(const nlohmann::json& json, ConferenceEntry::InvitationInfo& info);
void from_json(const nlohmann::json& json, ConferenceEntry::ParticipantInfo& info);
void from_json(const nlohmann::json& json, ConferenceEntry::TransferInfo& info);
void from_json(const nlohmann::json& json, ConferenceEntry& entry);

}  // namespace kel
