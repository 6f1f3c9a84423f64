#pragma once

#include "ServerClient/Client/SocketService.h"
#include "ServerClient/XMPP/Service/XMPPService.h"
#include "ServerClient/rx/Scheduler.h"

namespace kel {

/// The chat list over the socket (body `[]`), each request sent once the socket is
/// authenticated:
/// - oneToOneChatList(): `GET /xmpp/individualChatList`; the texts under "chats".
/// - addOneToOneChat(jid): `PUT /xmpp/individualChatList/<jid>`.
/// - deleteOneToOneChat(jid): `DELETE /xmpp/individualChatList/<jid>`.
///
/// The JID goes into the path as it is, unescaped. The list answer must be an object whose
/// members are all lists of texts; without "chats" the list is empty. Threads, errors and
/// disposal: see XMPPService.
class KelXMPPService : public SocketService, public XMPPService {
 public:
  /// The server resource this service addresses (see pathTable).
  enum class Path { oneToOneChat };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({{Path::oneToOneChat, "/xmpp/individualChatList"}});
  }

  /// A service that sends through whichever client `socketClient` holds at each request. Make
  /// it with std::make_shared: otherwise no request is ever sent and every operation fails with
  /// GenericError(underlying). `waitScheduler` times the wait for an
  /// authenticated socket; null means XMPPConnectionConstants::scheduler().
  explicit KelXMPPService(SocketClientSlot socketClient, rx::SchedulerPtr waitScheduler = nullptr);

  rx::Single<std::vector<std::string>> oneToOneChatList() override;
  rx::Completable addOneToOneChat(const std::string& jid) override;
  rx::Completable deleteOneToOneChat(const std::string& jid) override;

 private:
  /// One element once the slot's client is authenticated (at once when it already is).
  rx::Observable<rx::Unit> socketClientAuthenticated() const;
  /// `call`'s first response, sent after the wait. Once this service is gone nothing is sent and
  /// the single fails as for a request that was never answered.
  /// (A template only because Path is incomplete here; P is always Path.)
  template <class P>
  rx::Single<Resource> sendWhenAuthenticated(Call<P> call) const;

  rx::SchedulerPtr waitScheduler_;
};

}  // namespace kel
