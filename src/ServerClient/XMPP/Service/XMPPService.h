#pragma once

#include <string>
#include <vector>

#include "ServerClient/rx/Completable.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// The user's list of one-to-one chats, each named by the peer's JID. Unlike the other services,
/// each operation first waits, when subscribed, up to 10 seconds for the socket to be
/// authenticated (a socket that is reconnecting gets that long to come back), then sends one
/// request; it never retries. Results arrive on the socket client's thread, which must not be
/// blocked. Errors:
/// - ConnectionError `noSocketClient`: no socket client at all (not signed in), at once on the
///   subscribing thread;
/// - rx::TimeoutError: the socket was not authenticated within 10 seconds (the only error that
///   is no SDKError; it arrives on the waiting queue, XMPPConnectionConstants::scheduler());
/// - GenericError `decoding`: a list answer of another shape;
/// - GenericError `underlying`: a list answer that is not JSON, or the socket stopped (sign-out)
///   while the request was pending;
/// - the socket's errors, as for every request: ConnectionError `timeout` after 20 s without an
///   answer, the server's error codes (ConnectionError::mapToOvError).
///
/// Disposing the subscription while waiting stops the wait and nothing is sent; after sending,
/// it forgets the request (the answer is dropped, but the server may still make the change).
/// Every member may be called from any thread.
class XMPPService {
 public:
  /// Destroying a service does not end the requests already made through it.
  virtual ~XMPPService() = default;

  /// The peers' JIDs, in the server's order.
  virtual rx::Single<std::vector<std::string>> oneToOneChatList() = 0;
  /// Adds the chat with `jid` to the list. Completes once the server answered, whatever it
  /// answered.
  virtual rx::Completable addOneToOneChat(const std::string& jid) = 0;
  /// Removes the chat with `jid` from the list. Completes once the server answered, whatever it
  /// answered.
  virtual rx::Completable deleteOneToOneChat(const std::string& jid) = 0;
};

}  // namespace kel
