#pragma once

#include "ServerClient/Client/SocketService.h"
#include "ServerClient/Meeting/Service/MeetingsService.h"

namespace kel {

/// Meetings over the socket (body {} where none is given):
///   createMeeting(i)      POST   "/meetings"                    the invitation -> Meeting
///   deleteMeeting(m)      DELETE "/meetings/<m.id>"             -> nothing, once answered
///   updateMeeting(id, i)  PUT    "/meetings/<id>?sendInvites=b" the invitation -> Meeting
///                                (no query when i.sendInvites is absent)
///   meeting(id)           GET    "/meetings/<id>"               -> Meeting
///   meetings(s)           GET    "/meetings?<criteria>&all=true" -> list of Meeting
/// The search sends "name", "phone", "language" and "validUntil" (whole milliseconds since the
/// epoch) when present, and always "all=true".
class KelMeetingsService : public SocketService, public MeetingsService {
 public:
  enum class Path { meetings };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({{Path::meetings, "/meetings"}});
  }

  explicit KelMeetingsService(SocketClientSlot socketClient);

  rx::Single<Meeting> createMeeting(const MeetingInvitation& invitation) override;
  rx::Single<rx::Unit> deleteMeeting(const Meeting& meeting) override;
  rx::Single<Meeting> updateMeeting(const std::string& meetingId,
                                    const MeetingInvitation& invitation) override;
  rx::Single<Meeting> meeting(const std::string& meetingId) override;
  rx::Single<std::vector<Meeting>> meetings(const MeetingSearch& search) override;
};

}  // namespace kel
