#include "ServerClient/Meeting/Service/KelMeetingsService.h"

#include <utility>

#include "ServerClient/Utils/EpochMilliseconds.h"
#include "ServerClient/Utils/JsonCollection.h"
#include "ServerClient/Utils/QueryBuilder.h"

namespace kel {

namespace {
using Path = KelMeetingsService::Path;

Pathname<Path> meetingPath(const std::string& meetingId) {
  return {Path::meetings, {PathRule::append(meetingId)}};
}
}  // namespace

KelMeetingsService::KelMeetingsService(SocketClientSlot socketClient)
    : SocketService(std::move(socketClient)) {}

rx::Single<Meeting> KelMeetingsService::createMeeting(const MeetingInvitation& invitation) {
  try {
    return fetch<Meeting>(
        Call<Path>{.pathname = Path::meetings, .method = "POST", .body = toCollection(invitation)});
  } catch (...) {
    return rx::Single<Meeting>::error(std::current_exception());
  }
}

rx::Single<rx::Unit> KelMeetingsService::deleteMeeting(const Meeting& meeting) {
  return fetch<rx::Unit>(Call<Path>{
      .pathname = meetingPath(meeting.id), .method = "DELETE", .body = nlohmann::json::object()});
}

rx::Single<Meeting> KelMeetingsService::updateMeeting(const std::string& meetingId,
                                                      const MeetingInvitation& invitation) {
  try {
    auto body = toCollection(invitation);
    std::optional<QueryValue> sendInvites;
    if (invitation.sendInvites) sendInvites.emplace(*invitation.sendInvites);
    const auto query = QueryBuilder{{"sendInvites", sendInvites}}.build();
    return fetch<Meeting>(Call<Path>{
        .pathname = {Path::meetings, {PathRule::append(meetingId), PathRule::query(query)}},
        .method = "PUT",
        .body = std::move(body)});
  } catch (...) {
    return rx::Single<Meeting>::error(std::current_exception());
  }
}

rx::Single<Meeting> KelMeetingsService::meeting(const std::string& meetingId) {
  return fetch<Meeting>(Call<Path>{
      .pathname = meetingPath(meetingId), .method = "GET", .body = nlohmann::json::object()});
}

rx::Single<std::vector<Meeting>> KelMeetingsService::meetings(const MeetingSearch& search) {
  QueryBuilder::Parameters query{{"all", true}};
  if (search.name) query.emplace("name", *search.name);
  if (search.phone) query.emplace("phone", *search.phone);
  if (search.language) query.emplace("language", *search.language);
  if (search.validUntil) query.emplace("validUntil", epochMilliseconds(*search.validUntil));
  return fetch<std::vector<Meeting>>(
      Call<Path>{.pathname = {Path::meetings, {PathRule::query(QueryBuilder(query).build())}},
                 .method = "GET",
                 .body = nlohmann::json::object()});
}

}  // namespace kel
