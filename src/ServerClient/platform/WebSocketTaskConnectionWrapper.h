#pragma once

/// @file
/// The library's real WebSocket: RFC 6455 over TCP (ws) or TLS (wss), on Boost.Beast.
///
/// It keeps every promise of Socket.h. On top of those:
///
/// <b>Threads</b>
/// - Each wrapper owns one network thread running its own io_context. The thread starts at the
///   first connect(), disconnect() or executor() and ends when the wrapper is destroyed. All
///   network work and every delegate call happen on it; delegate calls are therefore serialised and
///   must not block for long, since nothing is read or written meanwhile.
/// - A call of send() from any thread costs one lock and, when the writer is idle, one hand-over
///   to the network thread; a burst of sends is drained by that thread without further
///   hand-overs. Frames are written one after the other in the order of the calls. A send() made
///   on the network thread itself (work posted to executor()) hands nothing over.
/// - The wrapper may be destroyed on any thread, including the network thread from inside a
///   delegate call. Destruction drops an open connection without a closing handshake (the peer
///   sees the TCP connection end; call disconnect() first for a clean close) and makes no further
///   delegate calls. On any other thread it waits until the network thread has finished; on the
///   network thread itself, that thread finishes its remaining cleanup on its own right after.
///
/// <b>Connecting</b>
/// - The upgrade is a GET of the URL's path and query with Host, the WebSocket fields, one
///   "Sec-WebSocket-Protocol" field listing the protocols given at construction, a User-Agent of
///   `ServerClient/<version>` unless the request sets one, and the request()'s header fields.
///   Fields that belong to the handshake (Host, Connection, Upgrade, Sec-WebSocket-Key,
///   Sec-WebSocket-Version, Sec-WebSocket-Extensions, Sec-WebSocket-Protocol) cannot be set
///   through request(); such fields are left out.
/// - With request().shouldHandleCookies() on, the cookies that the cookie storage holds for the URL
///   join the request's own "Cookie" field, in one field (a cookie the field already names is not
///   repeated), and the Set-Cookie fields of the server's answer are stored for the URL.
/// - A server that names a sub-protocol that was not asked for fails the upgrade; one that names
///   none is accepted.
/// - wss: TLS 1.2 or later; the server's certificate must chain to a trusted authority (the
///   system's store and/or the Options' own) and name the URL's host (DNS name, or IP address for
///   an address URL); SNI is sent for host names. Failing that, the connection ends with
///   tlsHandshakeFailure after a socketDidReceiveError that says why.
/// - Every other failure to open (name resolution, TCP, the HTTP upgrade, time-out) ends with
///   abnormalClosure after a socketDidReceiveError.
///
/// <b>Limits and timeouts (Options)</b>
/// - Opening: resolving, TCP connect, TLS handshake and upgrade must all be done within
///   openTimeout (15 s), so a dead or silent peer cannot keep a connect() pending for ever.
/// - Open connection: when nothing has arrived for keepAliveTimeout / 2 (15 s of 30 s), a
///   WebSocket ping is sent; when still nothing has arrived after keepAliveTimeout, the
///   connection counts as lost (abnormalClosure). Any RFC 6455 peer answers pings by itself.
/// - Closing: disconnect() first writes the frames sent before it, then performs the closing
///   handshake; all of it within closeTimeout (5 s), after which the transport is dropped. The
///   report comes in any case, with the code given.
/// - Incoming messages larger than maxMessageSize (16 MiB) are refused as soon as their frame
///   header announces it, before their payload is buffered: the connection is closed with
///   messageTooBig, which is also the code reported.
/// - Peer failures map to: a close frame -> its code, or noStatusReceived when it had none;
///   invalid UTF-8 in a text message -> invalidFramePayloadData; other protocol violations ->
///   protocolError; the transport ending or failing without a close frame -> abnormalClosure.

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/url/url.hpp>

#include "ServerClient/platform/CertificatePins.h"
#include "ServerClient/platform/HTTPCookieStorage.h"
#include "ServerClient/platform/Socket.h"
#include "ServerClient/platform/SocketExecutor.h"

namespace kel::platform {

namespace detail {
class NetworkThread;
}  // namespace detail

/// The library's WebSocket on Linux: RFC 6455 over TCP or TLS on Boost.Beast, with its own
/// network thread ("kel-websocket") on which every delegate call is made.
///
/// It keeps the contract of Socket.h; WebSocketTaskConnectionWrapper.h adds the threads, the
/// upgrade it sends, TLS, the limits and time-outs, and how failures map to close codes.
/// Failures are reported through socketDidReceiveError as a std::system_error (the Asio, Beast
/// or OpenSSL error code, and a what() that names the URL and the step that failed) or, for a
/// server key that is not pinned, a CertificatePinMismatch; then socketDidDisconnect follows with
/// the code. Nothing is reported for failures after disconnect() was called.
class WebSocketTaskConnectionWrapper final : public Socket, public SocketExecutor {
 public:
  /// TLS trust, limits, time-outs and cookie storage; the defaults suit the Kel server.
  struct Options {
    /// Trust the operating system's certificate authorities (OpenSSL's default paths).
    bool useSystemTrustStore = true;
    /// Further certificate authorities to trust, as PEM text: one or more certificates.
    std::string extraCertificateAuthoritiesPem;
    /// A PEM file of further certificate authorities to trust; none when empty.
    std::filesystem::path extraCertificateAuthoritiesFile;
    /// Keys the server's chain must hold (TlsClientContext.h); a mismatch is reported as a
    /// CertificatePinMismatch before the tlsHandshakeFailure close.
    CertificatePins pins;

    /// Resolving, connecting, the TLS handshake and the upgrade together; then abnormalClosure.
    std::chrono::milliseconds openTimeout{std::chrono::seconds(15)};
    /// Silence after which an open connection counts as lost (abnormalClosure); a ping goes out
    /// at half of it.
    std::chrono::milliseconds keepAliveTimeout{std::chrono::seconds(30)};
    /// Writing what was sent before disconnect() and the closing handshake together; then the
    /// transport is dropped and the report made.
    std::chrono::milliseconds closeTimeout{std::chrono::seconds(5)};
    /// The largest incoming message, in bytes; a larger one closes with messageTooBig.
    std::size_t maxMessageSize = 16 * 1024 * 1024;

    /// Where cookies come from and go to when the request handles cookies; the shared storage
    /// when null.
    std::shared_ptr<HTTPCookieStorage> cookieStorage;
  };

  /// A socket for a ws:// or wss:// `url`, asking for `protocols` as sub-protocols. Throws
  /// std::invalid_argument for another scheme, a URL without host, a protocol that is not an
  /// HTTP token or a certificate authority that cannot be read.
  WebSocketTaskConnectionWrapper(boost::urls::url url, std::vector<std::string> protocols);
  /// The same with `options`; for a wss:// URL, also throws std::invalid_argument for a pin that
  /// is not the base64 text of 32 bytes or a system trust store that cannot be loaded. No thread
  /// is started and nothing is connected yet.
  WebSocketTaskConnectionWrapper(boost::urls::url url, std::vector<std::string> protocols,
                                 Options options);
  /// Drops an open connection without a closing handshake, makes no further delegate call and,
  /// except on the network thread itself, waits for that thread to end.
  ~WebSocketTaskConnectionWrapper() override;

  // Socket
  const boost::urls::url& url() const noexcept override { return url_; }
  bool isConnected() const override;
  UpgradeRequest request() const override;
  void setRequest(UpgradeRequest request) override;
  void setDelegate(std::weak_ptr<WebSocketConnectionDelegate> delegate) override;
  void connect() override;
  void disconnect(SocketCloseCode closeCode) override;
  void send(std::string text) override;
  /// Writes an empty WebSocket pong frame (an unsolicited pong: a heartbeat the peer need not
  /// answer).
  void sendPong() override;
  // SocketExecutor
  /// The network thread's, which this call starts if it had not started yet.
  boost::asio::any_io_executor executor() override;

  /// The sub-protocols asked for in the upgrade, as given at construction.
  const std::vector<std::string>& protocols() const noexcept { return protocols_; }

 private:
  class Core;
  struct Runtime;

  // Starts the network thread unless it runs.
  void ensureRunning();

  const boost::urls::url url_;
  const std::vector<std::string> protocols_;
  std::shared_ptr<Core> core_;  // shared with the network thread's handlers
  std::shared_ptr<Runtime> runtime_;
  std::once_flag started_;
  std::unique_ptr<detail::NetworkThread> thread_;  // the network thread, once started
};

}  // namespace kel::platform
