#pragma once

#include "ServerClient/Client/SocketService.h"
#include "ServerClient/Meeting/Service/MeetingsService.h"

namespace kel {

/// Meetings over the socket (body `{}` where none is given):
/// - createMeeting(i): `POST /meetings`, body the invitation; a Meeting.
/// - deleteMeeting(m): `DELETE /meetings/<m.id>`; nothing, once answered.
/// - updateMeeting(id, i): `PUT /meetings/<id>?sendInvites=<b>`, body the invitation; a
///   Meeting. No query when i.sendInvites is absent.
/// - meeting(id): `GET /meetings/<id>`; a Meeting.
/// - meetings(s): `GET /meetings?<criteria>&all=true`; a list of Meeting.
///
/// The search sends "name", "phone", "language" and "validUntil" (whole milliseconds since the
/// epoch) when present, and always "all=true". Threads, errors and disposal: see
/// MeetingsService.
class KelMeetingsService : public SocketService, public MeetingsService {
 public:
  /// The server resource this service addresses (see pathTable).
  enum class Path { meetings };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({{Path::meetings, "/meetings"}});
  }

  /// A service that sends through whichever client `socketClient` holds at each request; made
  /// with std::make_shared (see SocketService).
  explicit KelMeetingsService(SocketClientSlot socketClient);

  rx::Single<Meeting> createMeeting(const MeetingInvitation& invitation) override;
  rx::Single<rx::Unit> deleteMeeting(const Meeting& meeting) override;
  rx::Single<Meeting> updateMeeting(const std::string& meetingId,
                                    const MeetingInvitation& invitation) override;
  rx::Single<Meeting> meeting(const std::string& meetingId) override;
  rx::Single<std::vector<Meeting>> meetings(const MeetingSearch& search) override;
};

}  // namespace kel
