#include "ServerClient/Meeting/Model/Meeting.h"

#include <nlohmann/json.hpp>

#include "ServerClient/Common/Random.h"
#include "ServerClient/Meeting/Model/MeetingInvitation.h"
#include "ServerClient/Utils/EpochMilliseconds.h"
#include "ServerClient/Utils/detail/JsonFields.h"

namespace kel {

using detail::readOptional;
using detail::readRequired;

namespace {

std::chrono::system_clock::time_point readInstant(const nlohmann::json& json, const char* key) {
  double milliseconds = 0;
  readRequired(json, key, milliseconds);
  return timeFromEpochMilliseconds(milliseconds);
}

}  // namespace

void from_json(const nlohmann::json& json, Meeting::Participant& participant) {
  Meeting::Participant decoded;
  decoded.email = readOptional<std::string>(json, "email");
  decoded.phone = readOptional<std::string>(json, "phone");
  decoded.userId = readOptional<std::string>(json, "userId");
  participant = std::move(decoded);
}

void to_json(nlohmann::json& json, const Meeting::Participant& participant) {
  json = nlohmann::json::object();
  if (participant.email) json["email"] = *participant.email;
  if (participant.phone) json["phone"] = *participant.phone;
  if (participant.userId) json["userId"] = *participant.userId;
}

void from_json(const nlohmann::json& json, Meeting::Record& record) {
  readRequired(json, "type", record.type);
}

void to_json(nlohmann::json& json, const Meeting::Record& record) {
  json = {{"type", record.type}};
}

void from_json(const nlohmann::json& json, Meeting& meeting) {
  Meeting decoded;
  readRequired(json, "id", decoded.id);
  readRequired(json, "name", decoded.name);
  readRequired(json, "user", decoded.user);
  Meeting::Participant owner{
      .email = decoded.user.email, .phone = std::nullopt, .userId = decoded.user.userId};
  if (!decoded.user.mobilePhones.empty()) owner.phone = decoded.user.mobilePhones.front();
  std::vector<Meeting::Participant> listed;
  readRequired(json, "participants", listed);
  decoded.participants.reserve(listed.size() + 1);
  decoded.participants.push_back(std::move(owner));
  for (auto& participant : listed) decoded.participants.push_back(std::move(participant));
  readRequired(json, "url", decoded.url);
  decoded.validSince = readInstant(json, "validSince");
  decoded.validUntil = readInstant(json, "validUntil");
  readRequired(json, "isPasswordProtected", decoded.isPasswordProtected);
  readRequired(json, "record", decoded.record);
  meeting = std::move(decoded);
}

void to_json(nlohmann::json& json, const Meeting& meeting) {
  json = {{"id", meeting.id},
          {"name", meeting.name},
          {"user", meeting.user},
          {"participants", meeting.participants},
          {"validSince", epochMilliseconds(meeting.validSince)},
          {"validUntil", epochMilliseconds(meeting.validUntil)},
          {"url", meeting.url},
          {"isPasswordProtected", meeting.isPasswordProtected},
          {"record", meeting.record}};
}

MeetingInvitation::MeetingInvitation(
    std::string name_, std::vector<Participant> participants_, std::string language_,
    std::chrono::system_clock::time_point validSince_,
    std::optional<std::chrono::system_clock::time_point> validUntil_,
    std::optional<bool> sendInvites_, bool isPasswordProtected, bool recordMeeting)
    : name(std::move(name_)),
      participants(std::move(participants_)),
      language(std::move(language_)),
      validSince(validSince_),
      validUntil(validUntil_),
      password(isPasswordProtected ? std::optional<std::string>(randomString(8)) : std::nullopt),
      record(recordMeeting),
      sendInvites(sendInvites_) {}

void to_json(nlohmann::ordered_json& json, const MeetingInvitation::Participant& participant) {
  json = nlohmann::ordered_json::object();
  if (participant.sendSMS) json["sendSMS"] = *participant.sendSMS;
  if (participant.phone) json["phone"] = *participant.phone;
  if (participant.email) json["email"] = *participant.email;
}

void to_json(nlohmann::ordered_json& json, const MeetingInvitation& invitation) {
  json = {{"name", invitation.name},
          {"participants", invitation.participants},
          {"language", invitation.language},
          {"validSince", epochMilliseconds(invitation.validSince)}};
  if (invitation.validUntil) json["validUntil"] = epochMilliseconds(*invitation.validUntil);
  if (invitation.password) json["password"] = *invitation.password;
  json["record"] = {{"type", invitation.record.type}};
}

void to_json(nlohmann::json& json, const MeetingInvitation& invitation) {
  json = nlohmann::json(nlohmann::ordered_json(invitation));
}

}  // namespace kel
