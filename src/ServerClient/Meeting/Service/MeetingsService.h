#pragma once

#include <string>
#include <vector>

#include "ServerClient/Meeting/Model/Meeting.h"
#include "ServerClient/Meeting/Model/MeetingInvitation.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// The user's meetings: each operation sends one request per subscription and never retries.
/// Results arrive on the socket client's thread. Errors are SDKErrors: the socket's
/// (ConnectionError noSocketClient when not signed in, timeout after 20 s, the server's error
/// codes), GenericError(decoding) for an answer that is not a meeting, GenericError(encoding)
/// for an invitation that cannot be encoded (nothing is sent then).
class MeetingsService {
 public:
  virtual ~MeetingsService() = default;

  virtual rx::Single<Meeting> createMeeting(const MeetingInvitation& invitation) = 0;
  virtual rx::Single<rx::Unit> deleteMeeting(const Meeting& meeting) = 0;
  /// Sends the invitation's sendInvites, when present, as the query key "sendInvites".
  virtual rx::Single<Meeting> updateMeeting(const std::string& meetingId,
                                            const MeetingInvitation& invitation) = 0;
  virtual rx::Single<Meeting> meeting(const std::string& meetingId) = 0;
  /// Every meeting matching the present criteria.
  virtual rx::Single<std::vector<Meeting>> meetings(const MeetingSearch& search) = 0;
};

}  // namespace kel
