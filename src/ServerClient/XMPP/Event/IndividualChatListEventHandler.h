#pragma once

#include "ServerClient/Socket/Events/DomainEventHandler.h"
#include "ServerClient/XMPP/Model/IndividualChatListSocketDTO.h"

namespace kel {

/// The server's chat-list events on "/xmpp/individualChatList/<jid>": PUT (a chat added) and
/// DELETE (a chat removed). The record's JID is the event path's last piece; the body is not
/// read. An event on the bare path gives a record without JID.
class IndividualChatListEventHandler : public DomainEventHandler {
 public:
  explicit IndividualChatListEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                          rx::SchedulerPtr scheduler = nullptr);

  const rx::Observable<IndividualChatListSocketDTO>& newIndividualChat() const noexcept {
    return newIndividualChat_;
  }
  const rx::Observable<IndividualChatListSocketDTO>& deleteIndividualChat() const noexcept {
    return deleteIndividualChat_;
  }

 private:
  rx::Observable<IndividualChatListSocketDTO> chats(std::string method) const;

  rx::Observable<IndividualChatListSocketDTO> newIndividualChat_;
  rx::Observable<IndividualChatListSocketDTO> deleteIndividualChat_;
};

}  // namespace kel
