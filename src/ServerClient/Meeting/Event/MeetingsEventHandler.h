#pragma once

#include "ServerClient/Meeting/Model/Meeting.h"
#include "ServerClient/Socket/Events/DomainEventHandler.h"

namespace kel {

/// The server's meeting events on "/meetings": POST (a new meeting), PUT (a changed one), both
/// carrying the meeting, and DELETE (a meeting removed; its body is not read).
class MeetingsEventHandler : public DomainEventHandler {
 public:
  explicit MeetingsEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                rx::SchedulerPtr scheduler = nullptr);

  const rx::Observable<Meeting>& newMeeting() const noexcept { return newMeeting_; }
  const rx::Observable<rx::Unit>& meetingDeleted() const noexcept { return meetingDeleted_; }
  const rx::Observable<Meeting>& meetingUpdated() const noexcept { return meetingUpdated_; }

 private:
  rx::Observable<Meeting> newMeeting_;
  rx::Observable<rx::Unit> meetingDeleted_;
  rx::Observable<Meeting> meetingUpdated_;
};

}  // namespace kel
