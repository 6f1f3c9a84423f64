// Feeds arbitrary bytes, read as JSON, to the event decoder with every domain's handler attached,
// the way the socket hands a server's event to them: nothing throws or crashes, and a domain
// stream that gives up on an event does so with the decoding error.

#include <memory>
#include <vector>

#include "FuzzCheck.h"
#include "ServerClient/AddressBooks/Event/AddressBooksEventHandler.h"
#include "ServerClient/Alert/Event/AlertsEventHandler.h"
#include "ServerClient/Common/Json.h"
#include "ServerClient/ConferenceLog/Event/ConferenceLogEventHandler.h"
#include "ServerClient/Group/Event/GroupEventHandler.h"
#include "ServerClient/Meeting/Event/MeetingsEventHandler.h"
#include "ServerClient/MissedCalls/Event/MissedCallsEventHandler.h"
#include "ServerClient/Presence/Event/PresencesEventHandler.h"
#include "ServerClient/Socket/Events/KelEventHandler.h"
#include "ServerClient/Utils/Description.h"
#include "ServerClient/XMPP/Event/IndividualChatListEventHandler.h"
#include "ServerClient/rx/TestScheduler.h"

namespace {

using kel::rx::Disposable;

// Every record that arrives is described (the text form walks all its fields), every error is
// checked.
template <class T>
void listen(const kel::rx::Observable<T>& stream, std::vector<Disposable>& subscriptions) {
  subscriptions.push_back(stream.subscribe(
      [](const T& value) {
        if constexpr (requires { kel::description(value); }) (void)kel::description(value);
      },
      kel::fuzz::checkDecodingError));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto event = kel::parseJson(kel::fuzz::text(data, size));
  if (!event) return 0;

  // Fresh handlers for each input: a stream that ended on one input would hide the next.
  auto scheduler = std::make_shared<kel::rx::TestScheduler>();
  auto events = std::make_shared<kel::KelEventHandler>();
  kel::AddressBooksEventHandler addressBooks(events, scheduler);
  kel::AlertsEventHandler alerts(events, scheduler);
  kel::ConferenceLogEventHandler conferenceLog(events, scheduler);
  kel::GroupEventHandler groups(events, scheduler);
  kel::MeetingsEventHandler meetings(events, scheduler);
  kel::MissedCallsEventHandler missedCalls(events, scheduler);
  kel::PresencesEventHandler presences(events, scheduler);
  kel::IndividualChatListEventHandler chats(events, scheduler);

  std::vector<Disposable> subscriptions;
  listen(addressBooks.newContact(), subscriptions);
  listen(addressBooks.contactUpdated(), subscriptions);
  listen(addressBooks.contactDeleted(), subscriptions);
  listen(alerts.newAlert(), subscriptions);
  listen(alerts.updatedAlert(), subscriptions);
  listen(conferenceLog.newConferenceEntry(), subscriptions);
  listen(groups.newGroup(), subscriptions);
  listen(groups.groupUpdated(), subscriptions);
  listen(groups.groupDeleted(), subscriptions);
  listen(groups.groupDidRemoveParticipant(), subscriptions);
  listen(meetings.newMeeting(), subscriptions);
  listen(meetings.meetingDeleted(), subscriptions);
  listen(meetings.meetingUpdated(), subscriptions);
  listen(missedCalls.newMissedCalls(), subscriptions);
  listen(presences.presenceUpdated(), subscriptions);
  listen(chats.newIndividualChat(), subscriptions);
  listen(chats.deleteIndividualChat(), subscriptions);
  scheduler->start();

  // Half the inputs go in shared, as the socket client hands them over, so that the handlers
  // decode the parsed body; the others as an object, so that they parse the text again.
  if (size % 2 == 0) {
    events->handleShared(std::make_shared<const nlohmann::json>(*event));
  } else {
    events->handle(*event);
  }
  scheduler->start();
  for (auto& subscription : subscriptions) subscription.dispose();
  return 0;
}
