#pragma once

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <boost/url/url_view.hpp>

#include "ServerClient/Socket/Events/SocketEventHandler.h"
#include "ServerClient/platform/Socket.h"
#include "ServerClient/platform/UpgradeRequest.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Scheduler.h"

namespace kel {

/// How long the connector and the authenticator wait for the server.
inline constexpr std::chrono::seconds kConnectionTimeout{20};

/// The cookie storage's header fields for a URL: nothing when the storage holds no cookie list
/// for it at all, otherwise the fields its cookie-to-header conversion yields (typically one
/// "Cookie" field; none for an empty list).
using CookieHeaderProvider =
    std::function<std::optional<std::vector<platform::UpgradeRequest::HeaderField>>(
        boost::urls::url_view url)>;

/// What the connector takes by injection; empty members take their defaults.
struct SocketConnectorOptions {
  /// Runs the time-out; by default a serial queue labelled "SocketConnector".
  rx::SchedulerPtr connectionScheduler{};
  /// The cookie storage; none by default (no cookie fields are set).
  CookieHeaderProvider cookieHeaders{};
};

/// Opens the WebSocket with the session cookies and waits for it to be open.
///
/// connect(), when subscribed:
///  1. makes the https form of the socket URL (every "wss" replaced by "https") and fails with
///     GenericError(invalidURL(text)) when that is no URL;
///  2. sets the cookie header fields for the socket URL, or, when the storage has no cookie list
///     for it, those for the https URL, on the socket's upgrade request;
///  3. logs "Trying to connect socket" and calls socket.connect();
///  4. succeeds with one element at the first `connected` state of the event handler (its current
///     state counts), or fails with ConnectionError(timeout, -1) after `connectionTimeout`, or at
///     once with GenericError(underlying(CertificatePinMismatch)) when the socket closes because
///     the server's key is not pinned (waiting could only end in the time-out).
/// The state stream is watched before the socket is asked to connect, so an open that is
/// reported at once is not missed. Disposing stops the wait; the socket is not closed.
class SocketConnector {
 public:
  /// What the connector takes by injection.
  using Options = SocketConnectorOptions;

  /// Opens `socket`, reading its states from `eventHandler`, waiting up to `connectionTimeout`.
  SocketConnector(std::shared_ptr<platform::Socket> socket,
                  std::shared_ptr<SocketEventHandler> eventHandler,
                  std::chrono::seconds connectionTimeout, Options options = {});

  /// See the class comment. The element arrives on the thread that reports the socket's state,
  /// the time-out on the connection scheduler. An attempt in flight does not need the connector
  /// to stay alive.
  rx::Single<rx::Unit> connect() const;

  /// How long connect() waits for the socket to open.
  std::chrono::seconds connectionTimeout() const noexcept { return connectionTimeout_; }

 private:
  std::shared_ptr<platform::Socket> socket_;
  std::shared_ptr<SocketEventHandler> eventHandler_;
  std::chrono::seconds connectionTimeout_;
  rx::SchedulerPtr connectionScheduler_;
  CookieHeaderProvider cookieHeaders_;
};

/// True for a failure that a certificate pin mismatch caused, as such or as the underlying error
/// of a GenericError: the connector's, or the HTTP client's pinMismatch. Retrying cannot help.
bool isCertificatePinMismatch(const std::exception_ptr& error);

namespace detail {
/// An observable that fails with ConnectionError(timeout, -1, "") `after` the subscription, on
/// `scheduler`: the losing side of the connection and request races.
rx::Observable<rx::Unit> timeoutFailure(std::chrono::seconds after, rx::SchedulerPtr scheduler);
/// One element at the first state of `kind` on `states`, then completion.
rx::Observable<rx::Unit> firstState(const rx::Observable<SocketState>& states,
                                    SocketState::Kind kind);
}  // namespace detail

}  // namespace kel
