#pragma once

#include "ServerClient/Contact/Model/Contact.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// The signed-in user's own contacts. Each operation succeeds once the server has accepted the
/// change, which it says with an empty answer. The change also reaches the user's sockets as a
/// contact event (AddressBooksEventHandler), which is how the application's lists learn of it.
///
/// Each operation sends one request when its single is subscribed (again at every further
/// subscription) and never retries. The result arrives on the socket client's thread, which
/// must not be blocked; a failure found before sending arrives at once on the subscribing
/// thread. Errors, all SDKError:
/// - GenericError `encoding`: the contact cannot be encoded (add, update); nothing is sent;
/// - ConnectionError `noSocketClient`: not signed in, or the socket is not authenticated;
///   nothing is sent;
/// - ConnectionError `timeout` (code -1): no answer within 20 s;
/// - ConnectionError mapped from the server's error code (ConnectionError::mapToOvError);
/// - GenericError `invalidResponse`: an answer that is not empty; its description is the
///   answer's JSON text;
/// - GenericError `underlying`: the socket was stopped (sign-out) while the request was pending;
///   this one arrives on the thread that stopped it.
///
/// Disposing the subscription before the answer forgets the request: the answer is dropped, but
/// the server may still make the change. Every member may be called from any thread.
class UserContactsService {
 public:
  /// Destroying a service does not end the requests already made through it.
  virtual ~UserContactsService() = default;

  /// Adds `contact`, whose id must be new among the user's contacts.
  virtual rx::Single<rx::Unit> add(const Contact& contact) = 0;
  /// Replaces the user's contact that has `contact`'s id with `contact`.
  virtual rx::Single<rx::Unit> update(const Contact& contact) = 0;
  /// Removes the user's contact that has `contact`'s id; the other fields are not sent.
  virtual rx::Single<rx::Unit> deleteContact(const Contact& contact) = 0;
};

}  // namespace kel
