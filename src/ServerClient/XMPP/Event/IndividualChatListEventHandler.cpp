#include "ServerClient/XMPP/Event/IndividualChatListEventHandler.h"

namespace kel {

IndividualChatListEventHandler::IndividualChatListEventHandler(
    std::shared_ptr<KelEventHandler> kelEventHandler, rx::SchedulerPtr scheduler)
    : DomainEventHandler(std::move(kelEventHandler), std::move(scheduler)),
      newIndividualChat_(chats("PUT")),
      deleteIndividualChat_(chats("DELETE")) {}

rx::Observable<IndividualChatListSocketDTO> IndividualChatListEventHandler::chats(
    std::string method) const {
  return eventsThrough(DomainEvent::xmppIndividualChatList, {std::move(method)},
                       [](const rx::Observable<KelEvent>& events) {
                         return events.map([](const KelEvent& event) {
                           return IndividualChatListSocketDTO{event.param};
                         });
                       });
}

}  // namespace kel
