#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/Decoding.h"
#include "ServerClient/Socket/Client/SocketClient.h"
#include "ServerClient/Socket/Model/PathRepresentable.h"
#include "ServerClient/Socket/Model/Pathname.h"
#include "ServerClient/Socket/Model/Request.h"
#include "ServerClient/Socket/Model/Resource.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Single.h"
#include "ServerClient/rx/Subjects.h"

namespace kel {

/// The shared, observable place that holds the current socket client, or null between sessions.
/// The facade owns it; every service holds a copy, and copies of a relay share one value.
using SocketClientSlot = rx::BehaviorRelay<std::shared_ptr<SocketClient>>;

namespace detail {
template <class T>
struct IsList : std::false_type {};
template <class T>
struct IsList<std::vector<T>> : std::true_type {};
}  // namespace detail

/// Base of every server-backed domain service. A service never holds the socket client itself:
/// it looks into the slot at every send, so a service created before the first sign-in works as
/// soon as a client is there, and fails cleanly once the slot is emptied.
///
/// A service operation is one Call (its path, method and body) handed to send, fetch or perform.
/// The request, with its random identifier, is made when the returned stream is subscribed, and
/// again at every further subscription: subscribing twice, or retrying, sends two requests with
/// two identifiers, never one identifier twice (the second would replace the first's pending
/// registration, and its answer would reach only one of them).
///
/// Services are made with std::make_shared. Their streams hold them weakly: a stream subscribed
/// after its service is gone (a logout drops the services) still sends, through the slot the
/// service was made with.
///
/// Results arrive on the socket client's thread (the socket's network thread by default); a
/// failure decided before anything is sent (no client in the slot, a socket that is not
/// authenticated) arrives at once on the subscribing thread. Disposing a subscription before
/// the answer unregisters the request, and an answer that comes later is dropped; the server
/// may still carry the request out. Every member may be called from any thread.
class SocketService : public std::enable_shared_from_this<SocketService> {
 public:
  /// What one operation sends. Where an operation has no body, the server expects an empty list.
  template <PathRepresentable Path>
  struct Call {
    Pathname<Path> pathname;                        ///< the resource, with its rules applied
    std::string method;                             ///< "GET", "POST", "PUT", "DELETE" or "HEAD"
    nlohmann::json body = nlohmann::json::array();  ///< the request's "body"
    /// Carried for the caller's use; not transmitted.
    std::map<std::string, std::string> headers{};
    /// How long the socket client waits for the answer before failing with
    /// ConnectionError(timeout, -1).
    std::chrono::seconds timeout = kDefaultRequestTimeout;

    /// The request, with a fresh random identifier at every call.
    JsonRequest<Path> request() const {
      return {.timeout = timeout,
              .pathname = pathname,
              .headers = headers,
              .body = body,
              .method = method};
    }
  };

  /// A service that sends through whatever client `socketClient` holds at each send.
  explicit SocketService(SocketClientSlot socketClient);
  virtual ~SocketService();

  SocketService(const SocketService&) = delete;
  SocketService& operator=(const SocketService&) = delete;

  /// The slot the service was made with (shared with the facade).
  const SocketClientSlot& socketClient() const noexcept { return socketClient_; }

  /// Sends `request` through the client in the slot at the time of this call and yields its
  /// responses unchanged. Every error of the client's stream arrives converted by toSDKError.
  /// With no client in the slot, the stream fails at once with
  /// ConnectionError(noSocketClient, -1, "") and nothing is sent.
  template <class Body, PathRepresentable Path>
  rx::Observable<Resource> sendRequestOrError(Request<Body, Path> request) {
    return sendRequestOrError(AnyRequest(std::move(request)));
  }

  /// The overridable form behind the template, through which every operation sends. A subclass
  /// that overrides it adds `using SocketService::sendRequestOrError;` to keep the template
  /// visible.
  virtual rx::Observable<Resource> sendRequestOrError(AnyRequest request);

  /// The first response of `responses` as a single value. A stream that ends without one (the
  /// socket closed while the request was pending) fails with toSDKError(rx::NoElementsError), so
  /// that every error leaving a service stays an SDKError.
  static rx::Single<Resource> firstResource(rx::Observable<Resource> responses);

  /// What a response's data becomes: a record (kel::from), a list of records (kel::fromArray)
  /// for std::vector, or nothing for rx::Unit. Throws GenericError(decoding).
  template <class Result>
  static Result decode(const Resource& resource) {
    if constexpr (std::is_same_v<Result, rx::Unit>) {
      return {};
    } else if constexpr (detail::IsList<Result>::value) {
      return fromArray<typename Result::value_type>(resource.data);
    } else {
      return from<Result>(resource.data);
    }
  }

 protected:
  /// `call`'s responses; a new request at every subscription (see the class comment).
  template <PathRepresentable Path>
  rx::Observable<Resource> send(Call<Path> call) const {
    return rx::Observable<Resource>::deferred(
        [weak = weak_from_this(), slot = socketClient_, call = std::move(call)] {
          if (auto self = std::const_pointer_cast<SocketService>(weak.lock())) {
            return self->sendRequestOrError(AnyRequest(call.request()));
          }
          return sendThrough(slot, AnyRequest(call.request()));
        });
  }

  /// `call`'s first response made into a Result (see decode).
  template <class Result, PathRepresentable Path>
  rx::Single<Result> fetch(Call<Path> call) const {
    return firstResource(send(std::move(call))).map(&decode<Result>);
  }

  /// Completes when `call`'s first response arrives, whatever it holds.
  template <PathRepresentable Path>
  rx::Completable perform(Call<Path> call) const {
    return firstResource(send(std::move(call))).asCompletable();
  }

  /// This service as its own class, weakly, for callbacks that must not keep it alive; empty when
  /// the service was not made with std::make_shared.
  template <class Self>
  std::weak_ptr<Self> weakSelf(Self* self) const {
    if (auto base = weak_from_this().lock()) return std::shared_ptr<Self>(std::move(base), self);
    return {};
  }

 private:
  static rx::Observable<Resource> sendThrough(const SocketClientSlot& slot, AnyRequest request);

  const SocketClientSlot socketClient_;
};

}  // namespace kel
