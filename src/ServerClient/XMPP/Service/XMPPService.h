#pragma once

#include <string>
#include <vector>

#include "ServerClient/rx/Completable.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// The user's list of one-to-one chats, each named by the peer's JID. Unlike the other services,
/// each operation first waits, when subscribed, up to 10 seconds for the socket to be
/// authenticated (a socket that is reconnecting gets that long to come back), then sends one
/// request. Results arrive on the socket client's thread. Errors:
///   ConnectionError(noSocketClient)  no socket client at all (not signed in)
///   rx::TimeoutError                 the socket was not authenticated within 10 seconds (the
///                                    only error that is no SDKError, on the waiting queue)
///   GenericError(decoding)           a list answer of another shape
///   GenericError(underlying)         a list answer that is not JSON
///   the socket's errors              as for every request (time-out 20 s, server codes)
class XMPPService {
 public:
  virtual ~XMPPService() = default;

  /// The peers' JIDs.
  virtual rx::Single<std::vector<std::string>> oneToOneChatList() = 0;
  /// Complete once the server answered, whatever it answered.
  virtual rx::Completable addOneToOneChat(const std::string& jid) = 0;
  virtual rx::Completable deleteOneToOneChat(const std::string& jid) = 0;
};

}  // namespace kel
