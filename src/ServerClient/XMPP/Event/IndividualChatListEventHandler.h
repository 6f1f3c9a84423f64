#pragma once

#include "ServerClient/Socket/Events/DomainEventHandler.h"
#include "ServerClient/XMPP/Model/IndividualChatListSocketDTO.h"

namespace kel {

/// The server's chat-list events on "/xmpp/individualChatList/<jid>": PUT (a chat added) and
/// DELETE (a chat removed). The record's JID is the event path's last piece; the body is not
/// read. An event on the bare path gives a record without JID, and so does a last piece that
/// occurs within "/xmpp/individualChatList" (see domainAndParamFor).
///
/// Each stream delivers on the handler's scheduler (the application's main thread unless
/// another was given) and starts listening only once that scheduler has run the subscription;
/// events are not replayed. Nothing is decoded, so nothing fails. Every stream completes when
/// the event channel does (at sign-out). Disposing a subscription stops it only; nothing is sent
/// to the server. The streams do not depend on the handler object: they go on after it is
/// destroyed. Thread-safe.
class IndividualChatListEventHandler : public DomainEventHandler {
 public:
  /// Builds the streams over `kelEventHandler`'s event channel. `scheduler` is where they
  /// subscribe and deliver; null means the main-thread scheduler.
  explicit IndividualChatListEventHandler(std::shared_ptr<KelEventHandler> kelEventHandler,
                                          rx::SchedulerPtr scheduler = nullptr);

  /// A chat added to the user's list: PUT events.
  const rx::Observable<IndividualChatListSocketDTO>& newIndividualChat() const noexcept {
    return newIndividualChat_;
  }
  /// A chat removed from the user's list: DELETE events.
  const rx::Observable<IndividualChatListSocketDTO>& deleteIndividualChat() const noexcept {
    return deleteIndividualChat_;
  }

 private:
  rx::Observable<IndividualChatListSocketDTO> chats(std::string method) const;

  rx::Observable<IndividualChatListSocketDTO> newIndividualChat_;
  rx::Observable<IndividualChatListSocketDTO> deleteIndividualChat_;
};

}  // namespace kel
