#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "ServerClient/Socket/Events/SocketEventHandler.h"
#include "ServerClient/Socket/Model/PathRepresentable.h"
#include "ServerClient/Socket/Model/Request.h"
#include "ServerClient/Socket/Model/Resource.h"
#include "ServerClient/Socket/Model/SocketState.h"
#include "ServerClient/platform/SocketCloseCode.h"
#include "ServerClient/rx/Observable.h"

namespace kel {

namespace detail {
class RequestConcept {
 public:
  virtual ~RequestConcept() = default;
  virtual std::int64_t requestID() const noexcept = 0;
  virtual std::chrono::seconds timeout() const noexcept = 0;
  virtual std::optional<std::string> toMessage() const noexcept = 0;
  virtual nlohmann::json toDictionary() const = 0;
};

template <class Body, PathRepresentable Path>
class RequestModel final : public RequestConcept {
 public:
  explicit RequestModel(Request<Body, Path> request) : request_(std::move(request)) {}
  std::int64_t requestID() const noexcept override { return request_.requestID; }
  std::chrono::seconds timeout() const noexcept override { return request_.timeout; }
  std::optional<std::string> toMessage() const noexcept override { return request_.toMessage(); }
  nlohmann::json toDictionary() const override { return request_.toDictionary(); }

 private:
  Request<Body, Path> request_;
};
}  // namespace detail

/// Any Request<Body, Path>, whatever its body and path types, as the socket client sees it. Made
/// implicitly from a request, so `client->send(request)` takes every kind of request. Copies
/// share one immutable request.
class AnyRequest {
 public:
  /// Wraps `request`; implicit on purpose (see the class comment).
  template <class Body, PathRepresentable Path>
  AnyRequest(Request<Body, Path> request)  // NOLINT(google-explicit-constructor)
      : request_(std::make_shared<const detail::RequestModel<Body, Path>>(std::move(request))) {}

  /// The identifier that the response will carry (the client may send the request under a
  /// fresh one when this one is pending already).
  std::int64_t requestID() const noexcept { return request_->requestID(); }
  /// How long the client waits for the response.
  std::chrono::seconds timeout() const noexcept { return request_->timeout(); }
  /// The request frame, or nothing when the request cannot be serialised.
  std::optional<std::string> toMessage() const noexcept { return request_->toMessage(); }
  /// The wire object; throws only what converting the body to JSON throws.
  nlohmann::json toDictionary() const { return request_->toDictionary(); }
  /// The wire object's text for messages, whatever it holds ("<unprintable>" if the body cannot
  /// even be converted).
  std::string describe() const;

 private:
  std::shared_ptr<const detail::RequestConcept> request_;
};

/// The socket through which the services reach the server, as the facade and the services hold
/// it (KelSocketClient is the library's; tests substitute their own). Every member may be called
/// from any thread.
class SocketClient {
 public:
  virtual ~SocketClient() = default;

  /// The socket's state as last published by its event handler.
  virtual SocketState currentStatus() const = 0;
  /// The socket's states: the current one first, then every change.
  virtual rx::Observable<SocketState> socketConnectionEventChannel() const = 0;
  /// Connects and authenticates with the session token: one element once authenticated, or the
  /// connector's or authenticator's failure. Nothing happens until subscribed.
  virtual rx::Observable<rx::Unit> connect(std::string token) = 0;
  /// Closes the socket with `reason` for good and completes every pending request without an
  /// element.
  virtual void stop(platform::SocketCloseCode reason) = 0;
  /// Sends `request` and yields the matching Resource, then completes; fails with the mapped
  /// server error (ConnectionError::mapToOvError), ConnectionError(timeout, -1) after the
  /// request's timeout, GenericError(encoding) for a request that cannot be written, or
  /// ConnectionError(noSocketClient, -1) when the socket is not authenticated at the time of the
  /// call. Completes without an element when the client is stopped first. The frame goes out
  /// when the stream is subscribed, once per subscription; disposing before the answer
  /// unregisters the request.
  virtual rx::Observable<Resource> send(AnyRequest request) = 0;
  /// What last went wrong with the socket (see SocketFailure); nothing by default.
  virtual std::optional<SocketFailure> lastFailure() const { return std::nullopt; }
};

/// describeError(error), followed by "; " and the client's last socket failure when the error is
/// the library's own time-out (ConnectionError.timeout, code -1): a connection or request that
/// timed out usually did so because the socket was refused or broke, which the wait cannot say.
std::string describeErrorWithSocketFailure(const std::exception_ptr& error,
                                           const std::shared_ptr<SocketClient>& client);

}  // namespace kel
