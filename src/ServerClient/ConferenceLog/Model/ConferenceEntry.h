#pragma once

/// @file
/// One entry of the conference log: a conference room with the invitations sent in it, who took
/// part, the transfers made, and how each invited candidate's call ended.
///
/// ```
/// {"id": "c1", "roomId": "r1", "state": "finished", "createdAt": 1700000000000,
///  "finishedAt": 1700000060000, "type": "call",
///  "invites": [{"from": "u1", "to": "u2", "state": "ACCEPTED", "group": false, "error": 486,
///               "mediatypes": {"audio": true},
///               "candidates": [{"address": "kel-user:u2", "endReason": 200}]}],
///  "participants": [{"address": "kel-user:u1", "createdAt": 1700000000000}],
///  "transfers": [{"from": "u1", "to": "u3", "state": "DECLINED", "idInvite": "i1"}]}
/// ```
///
/// Time stamps are kept as the numbers the server wrote. Every key is required but "type",
/// "error" and a participant's "finishedAt". The enumerations decode tolerantly:
/// - ConferenceCode: any other integer, or no integer at all, reads as ok (a candidate's
///   endReason); an invitation's "error" with another code reads as absent;
/// - state texts: "active" or else finished; the call states or else unknown; the conference
///   types or else unknown;
///
/// but a state or type that is not a text fails, as does any missing required key. One failing
/// nested record fails the entry.

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

/// How a call attempt ended, by its SIP final response code: decline 603, ok 200, busy 486,
/// cancel 487, timeout 408.
enum class ConferenceCode { decline = 603, ok = 200, busy = 486, cancel = 487, timeout = 408 };
BOOST_DESCRIBE_ENUM(ConferenceCode, decline, ok, busy, cancel, timeout)

/// The case of a known code; nothing for any other.
std::optional<ConferenceCode> conferenceCodeFrom(std::int64_t code) noexcept;
/// The case of an integer JSON value with a known code; ok for anything else. Never throws.
ConferenceCode decodeConferenceCode(const nlohmann::json& json) noexcept;

/// One conference of the user's log (JSON form in ConferenceEntry.h), as
/// ConferenceLogService::conferencesEntries lists it and ConferenceLogEventHandler announces
/// it. A plain value. Time stamps are milliseconds since the epoch, as the server wrote them.
struct ConferenceEntry {
  /// Whether the conference is still going on ("state").
  enum class ConferenceState {
    finished,  ///< "finished", and any text other than "active"
    active     ///< "active"
  };
  /// What the conference was ("type").
  enum class ConferenceType {
    call,     ///< "call"
    meeting,  ///< "meeting"
    unknown   ///< "unknown", and any other text
  };
  /// The outcome of an invitation or a transfer.
  enum class CallState {
    declined,         ///< "DECLINED"
    cancelByCreator,  ///< "DECLINED_BY_CREATOR"
    timeout,          ///< "DECLINED_BY_TIMEOUT"
    accepted,         ///< "ACCEPTED"
    unknown           ///< "unknown", and any other text
  };

  /// One invitation sent in the conference.
  struct InvitationInfo {
    /// The invitation's outcome.
    using State = CallState;
    /// One address the invitation was offered to, and how its call ended.
    struct CandidateInfo {
      std::string address{};                          ///< "address", e.g. "kel-user:u2"
      ConferenceCode endReason = ConferenceCode::ok;  ///< "endReason" (ok when unknown)
      /// Field-by-field equality.
      bool operator==(const CandidateInfo&) const = default;
    };

    std::string from{};                       ///< "from": who invited
    std::string to{};                         ///< "to": who was invited
    std::vector<CandidateInfo> candidates{};  ///< "candidates", in the server's order
    State state = State::unknown;             ///< "state"
    bool group = false;                       ///< "group": a group invitation
    /// "error": why the invitation failed, when it did with a known code.
    std::optional<ConferenceCode> error{};
    /// One flag per media type name ("audio", "video", ...).
    std::map<std::string, bool> mediatypes{};
    /// Field-by-field equality.
    bool operator==(const InvitationInfo&) const = default;
  };

  /// One participant of the conference.
  struct ParticipantInfo {
    std::string address{};               ///< "address", e.g. "kel-user:u1"
    double createdAt = 0;                ///< "createdAt": when they joined
    std::optional<double> finishedAt{};  ///< "finishedAt": when they left; absent if still in
    /// Field-by-field equality.
    bool operator==(const ParticipantInfo&) const = default;
  };

  /// One transfer made during the conference.
  struct TransferInfo {
    /// The transfer's outcome.
    using State = CallState;
    std::string from{};            ///< "from": who transferred
    std::string to{};              ///< "to": to whom
    State state = State::unknown;  ///< "state"
    std::string idInvite{};        ///< "idInvite": the invitation concerned
    /// Field-by-field equality.
    bool operator==(const TransferInfo&) const = default;
  };

  std::string id{};                                   ///< "id": the entry's identifier
  std::string roomId{};                               ///< "roomId": the conference room
  ConferenceState state = ConferenceState::finished;  ///< "state"
  double createdAt = 0;                               ///< "createdAt": when it began
  double finishedAt = 0;                              ///< "finishedAt": when it ended
  std::vector<InvitationInfo> invites{};              ///< "invites", in the server's order
  std::vector<ParticipantInfo> participants{};        ///< "participants", in the server's order
  std::vector<TransferInfo> transfers{};              ///< "transfers", in the server's order
  std::optional<ConferenceType> type{};               ///< "type"; absent or null: not given

  /// Field-by-field equality.
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

/// The state of a JSON text: active for "active", finished for any other text. A value that is
/// not a text throws GenericError(underlying(the reader's error)).
ConferenceEntry::ConferenceState decodeConferenceState(const nlohmann::json& json);
/// The type of a JSON text; unknown for a text that names none. Throws as decodeConferenceState.
ConferenceEntry::ConferenceType decodeConferenceType(const nlohmann::json& json);
/// The call state of a JSON text; unknown for a text that names none. Throws as
/// decodeConferenceState.
ConferenceEntry::CallState decodeCallState(const nlohmann::json& json);

/// Reads a candidate: "address" required, "endReason" required but read tolerantly. Throws
/// (std::invalid_argument, nlohmann's errors or GenericError) for what does not fit, which
/// kel::from reports as GenericError(decoding); so do the readers below.
void from_json(const nlohmann::json& json, ConferenceEntry::InvitationInfo::CandidateInfo& info);
/// Reads an invitation; "error" may be absent, or hold any value.
void from_json(const nlohmann::json& json, ConferenceEntry::InvitationInfo& info);
/// Reads a participant; "finishedAt" may be absent or null.
void from_json(const nlohmann::json& json, ConferenceEntry::ParticipantInfo& info);
/// Reads a transfer.
void from_json(const nlohmann::json& json, ConferenceEntry::TransferInfo& info);
/// Reads an entry; "type" may be absent or null.
void from_json(const nlohmann::json& json, ConferenceEntry& entry);

}  // namespace kel
