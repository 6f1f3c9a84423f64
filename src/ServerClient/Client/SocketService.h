#pragma once

#include <memory>

#include "ServerClient/Socket/Client/SocketClient.h"
#include "ServerClient/Socket/Model/PathRepresentable.h"
#include "ServerClient/Socket/Model/Request.h"
#include "ServerClient/Socket/Model/Resource.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Single.h"
#include "ServerClient/rx/Subjects.h"

namespace kel {

/// The shared, observable place that holds the current socket client, or null between sessions.
/// The facade owns it; every service holds a copy, and copies of a relay share one value.
using SocketClientSlot = rx::BehaviorRelay<std::shared_ptr<SocketClient>>;

/// Base of every server-backed domain service. A service never holds the socket client itself:
/// it looks into the slot at every send, so a service created before the first sign-in works as
/// soon as a client is there, and fails cleanly once the slot is emptied.
class SocketService {
 public:
  explicit SocketService(SocketClientSlot socketClient);
  virtual ~SocketService();

  SocketService(const SocketService&) = delete;
  SocketService& operator=(const SocketService&) = delete;

  const SocketClientSlot& socketClient() const noexcept { return socketClient_; }

  /// Sends `request` through the client in the slot at the time of this call and yields its
  /// responses unchanged. Every error of the client's stream arrives converted by toSDKError.
  /// With no client in the slot, the stream fails at once with
  /// ConnectionError(noSocketClient, -1, "") and nothing is sent.
  template <class Body, PathRepresentable Path>
  rx::Observable<Resource> sendRequestOrError(Request<Body, Path> request) {
    return sendRequestOrError(AnyRequest(std::move(request)));
  }

  /// The overridable form behind the template. A subclass that overrides it adds
  /// `using SocketService::sendRequestOrError;` to keep the template visible.
  virtual rx::Observable<Resource> sendRequestOrError(AnyRequest request);

  /// The first response of `responses` as a single value. A stream that ends without one (the
  /// socket closed while the request was pending) fails with toSDKError(rx::NoElementsError), so
  /// that every error leaving a service stays an SDKError.
  static rx::Single<Resource> firstResource(rx::Observable<Resource> responses);

 private:
  const SocketClientSlot socketClient_;
};

}  // namespace kel
