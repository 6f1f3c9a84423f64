#pragma once

#include "ServerClient/MissedCalls/Model/MissedCallsDTO.h"
#include "ServerClient/rx/Completable.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// A user's missed calls: reading them and marking them read. Each operation sends one request
/// when subscribed (again at every further subscription) and never retries. Results arrive on
/// the socket client's thread, which must not be blocked; a failure found before sending
/// arrives at once on the subscribing thread. Errors, all SDKError:
/// - ConnectionError `noSocketClient`: not signed in, or the socket is not authenticated;
///   nothing is sent;
/// - ConnectionError `timeout` (code -1): no answer within 20 s;
/// - ConnectionError mapped from the server's error code (ConnectionError::mapToOvError);
/// - GenericError `decoding`: an answer of another shape;
/// - GenericError `underlying`: the socket was stopped (sign-out) while the request was pending;
///   this one arrives on the thread that stopped it.
///
/// Disposing the subscription before the answer forgets the request: the answer is dropped, but
/// the server may still make the change. Every member may be called from any thread.
class MissedCallsService {
 public:
  /// Destroying a service does not end the requests already made through it.
  virtual ~MissedCallsService() = default;

  /// The missed calls of `request.userId`, as the server keeps them.
  virtual rx::Single<MissedCallsDTO> getMissedCalls(const MissedCallsRequest& request) = 0;
  /// Marks the user's missed calls read up to and including `request.callId`. Completes once
  /// the server answered, whatever the answer holds.
  virtual rx::Completable setReadMissedCalls(const MissedCallsReadRequest& request) = 0;
};

}  // namespace kel
