#pragma once

#include "ServerClient/MissedCalls/Model/MissedCallsDTO.h"
#include "ServerClient/rx/Completable.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// A user's missed calls. Each operation sends one request per subscription and never retries.
/// Results arrive on the socket client's thread. Errors are SDKErrors: the socket's
/// (ConnectionError noSocketClient when not signed in, timeout after 20 s, the server's error
/// codes) and GenericError(decoding) for an answer of another shape.
class MissedCallsService {
 public:
  virtual ~MissedCallsService() = default;

  virtual rx::Single<MissedCallsDTO> getMissedCalls(const MissedCallsRequest& request) = 0;
  /// Completes once the server answered, whatever the answer holds.
  virtual rx::Completable setReadMissedCalls(const MissedCallsReadRequest& request) = 0;
};

}  // namespace kel
