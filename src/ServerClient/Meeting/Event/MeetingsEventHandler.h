#pragma once

#include "ServerClient/Meeting/Model/Meeting.h"
#include "ServerClient/Socket/Events/DomainEventHandler.h"

namespace kel {

/// The server's meeting events on "/meetings": POST (a new meeting), PUT (a changed one), both
/// carrying the meeting, and DELETE (a meeting removed; its body is not read).
///
/// Each stream delivers on the handler's scheduler (the application's main thread unless
/// another was given) and starts listening only once that scheduler has run the subscription;
/// events are not replayed. A body that does not decode as Meeting ends that subscriber's
/// newMeeting or meetingUpdated stream with GenericError(decoding). Every stream completes when
/// the event channel does (at sign-out). Disposing a subscription stops it only; nothing is sent
/// to the server. The streams do not depend on the handler object: they go on after it is
/// destroyed. Thread-safe.
class MeetingsEventHandler : public DomainEventHandler {
 public:
  /// Builds the streams over `kelEventHandler`'s event channel. `scheduler` is where they
  /// subscribe and deliver; null means the main-thread scheduler.
  explicit MeetingsEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                rx::SchedulerPtr scheduler = nullptr);

  /// A meeting new to the user: "/meetings" POST events.
  const rx::Observable<Meeting>& newMeeting() const noexcept { return newMeeting_; }
  /// A meeting removed, or the user no longer in it: one element per "/meetings" DELETE event.
  /// Which meeting is not told; read the list again (MeetingsService::meetings).
  const rx::Observable<rx::Unit>& meetingDeleted() const noexcept { return meetingDeleted_; }
  /// A meeting changed: "/meetings" PUT events; the meeting as it is now.
  const rx::Observable<Meeting>& meetingUpdated() const noexcept { return meetingUpdated_; }

 private:
  rx::Observable<Meeting> newMeeting_;
  rx::Observable<rx::Unit> meetingDeleted_;
  rx::Observable<Meeting> meetingUpdated_;
};

}  // namespace kel
