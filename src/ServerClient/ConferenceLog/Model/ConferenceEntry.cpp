#include "ServerClient/ConferenceLog/Model/ConferenceEntry.h"

#include <nlohmann/json.hpp>

#include "ServerClient/Common/RawValues.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Utils/detail/JsonFields.h"

namespace kel {

using detail::readOptional;
using detail::readRequired;
using Entry = ConferenceEntry;

namespace {

constexpr RawValues<Entry::ConferenceState, 2> kStates{{"finished", "active"}};
constexpr RawValues<Entry::ConferenceType, 3> kTypes{{"call", "meeting", "unknown"}};
constexpr RawValues<Entry::CallState, 5> kCallStates{
    {"DECLINED", "DECLINED_BY_CREATOR", "DECLINED_BY_TIMEOUT", "ACCEPTED", "unknown"}};

std::string readText(const nlohmann::json& json) {
  try {
    return json.get<std::string>();
  } catch (...) {
    throw GenericError(GenericErrorType::underlying(std::current_exception()));
  }
}

}  // namespace

std::optional<ConferenceCode> conferenceCodeFrom(std::int64_t code) noexcept {
  for (auto known : {ConferenceCode::decline, ConferenceCode::ok, ConferenceCode::busy,
                     ConferenceCode::cancel, ConferenceCode::timeout}) {
    if (static_cast<std::int64_t>(known) == code) return known;
  }
  return std::nullopt;
}

ConferenceCode decodeConferenceCode(const nlohmann::json& json) noexcept {
  const auto code = detail::jsonInt64(json);
  return code ? conferenceCodeFrom(*code).value_or(ConferenceCode::ok) : ConferenceCode::ok;
}

std::string_view rawValue(Entry::ConferenceState state) noexcept {
  return kStates.text(state);
}
std::string_view rawValue(Entry::ConferenceType type) noexcept {
  return kTypes.text(type);
}
std::string_view rawValue(Entry::CallState state) noexcept {
  return kCallStates.text(state);
}

Entry::ConferenceState decodeConferenceState(const nlohmann::json& json) {
  return readText(json) == "active" ? Entry::ConferenceState::active
                                    : Entry::ConferenceState::finished;
}

Entry::ConferenceType decodeConferenceType(const nlohmann::json& json) {
  return kTypes.find(readText(json)).value_or(Entry::ConferenceType::unknown);
}

Entry::CallState decodeCallState(const nlohmann::json& json) {
  return kCallStates.find(readText(json)).value_or(Entry::CallState::unknown);
}

void from_json(const nlohmann::json& json, Entry::InvitationInfo::CandidateInfo& info) {
  readRequired(json, "address", info.address);
  info.endReason = decodeConferenceCode(detail::requiredMember(json, "endReason"));
}

void from_json(const nlohmann::json& json, Entry::InvitationInfo& info) {
  Entry::InvitationInfo decoded;
  readRequired(json, "from", decoded.from);
  readRequired(json, "to", decoded.to);
  readRequired(json, "candidates", decoded.candidates);
  decoded.state = decodeCallState(detail::requiredMember(json, "state"));
  readRequired(json, "group", decoded.group);
  // Unlike a candidate's end reason, an unknown code is no error at all.
  if (const auto error = json.find("error"); error != json.end()) {
    if (const auto code = detail::jsonInt64(*error)) decoded.error = conferenceCodeFrom(*code);
  }
  readRequired(json, "mediatypes", decoded.mediatypes);
  info = std::move(decoded);
}

void from_json(const nlohmann::json& json, Entry::ParticipantInfo& info) {
  Entry::ParticipantInfo decoded;
  readRequired(json, "address", decoded.address);
  readRequired(json, "createdAt", decoded.createdAt);
  decoded.finishedAt = readOptional<double>(json, "finishedAt");
  info = std::move(decoded);
}

void from_json(const nlohmann::json& json, Entry::TransferInfo& info) {
  Entry::TransferInfo decoded;
  readRequired(json, "from", decoded.from);
  readRequired(json, "to", decoded.to);
  decoded.state = decodeCallState(detail::requiredMember(json, "state"));
  readRequired(json, "idInvite", decoded.idInvite);
  info = std::move(decoded);
}

void from_json(const nlohmann::json& json, ConferenceEntry& entry) {
  ConferenceEntry decoded;
  readRequired(json, "id", decoded.id);
  readRequired(json, "roomId", decoded.roomId);
  decoded.state = decodeConferenceState(detail::requiredMember(json, "state"));
  readRequired(json, "createdAt", decoded.createdAt);
  readRequired(json, "finishedAt", decoded.finishedAt);
  readRequired(json, "invites", decoded.invites);
  readRequired(json, "participants", decoded.participants);
  readRequired(json, "transfers", decoded.transfers);
  if (const auto type = json.find("type"); type != json.end() && !type->is_null()) {
    decoded.type = decodeConferenceType(*type);
  }
  entry = std::move(decoded);
}

}  // namespace kel
