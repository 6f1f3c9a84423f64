#pragma once

#include <string>
#include <vector>

#include "ServerClient/Meeting/Model/Meeting.h"
#include "ServerClient/Meeting/Model/MeetingInvitation.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// The user's meetings: creating, changing, deleting and finding them.
///
/// Each operation sends one request when subscribed (again at every further subscription) and
/// never retries. Results arrive on the socket client's thread, which must not be blocked; a
/// failure found before sending arrives at once on the subscribing thread. Errors, all SDKError:
/// - GenericError `encoding`: an invitation that cannot be encoded; nothing is sent;
/// - ConnectionError `noSocketClient`: not signed in, or the socket is not authenticated;
///   nothing is sent;
/// - ConnectionError `timeout` (code -1): no answer within 20 s;
/// - ConnectionError mapped from the server's error code (ConnectionError::mapToOvError);
/// - GenericError `decoding`: an answer that is not a meeting, or a list of them, where one is
///   expected;
/// - GenericError `underlying`: the socket was stopped (sign-out) while the request was pending;
///   this one arrives on the thread that stopped it.
///
/// Ids go into the paths as they are, not percent-encoded. Disposing the subscription before
/// the answer forgets the request: the answer is dropped, but the server may still make the
/// change. Every member may be called from any thread.
class MeetingsService {
 public:
  /// Destroying a service does not end the requests already made through it.
  virtual ~MeetingsService() = default;

  /// Creates a meeting owned by the user from `invitation`; the meeting the server made.
  virtual rx::Single<Meeting> createMeeting(const MeetingInvitation& invitation) = 0;
  /// Deletes the meeting with `meeting`'s id; succeeds once the server answered, whatever the
  /// answer holds.
  virtual rx::Single<rx::Unit> deleteMeeting(const Meeting& meeting) = 0;
  /// Replaces the meeting `meetingId`'s settings with `invitation`; the meeting as changed.
  /// Sends the invitation's sendInvites, when present, as the query key "sendInvites".
  virtual rx::Single<Meeting> updateMeeting(const std::string& meetingId,
                                            const MeetingInvitation& invitation) = 0;
  /// The meeting `meetingId`.
  virtual rx::Single<Meeting> meeting(const std::string& meetingId) = 0;
  /// Every meeting matching the present criteria, in the server's order.
  virtual rx::Single<std::vector<Meeting>> meetings(const MeetingSearch& search) = 0;
};

}  // namespace kel
