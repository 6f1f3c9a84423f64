#pragma once

// A small WebSocket server on loopback for tests of WebSocket clients, plain (ws) or over TLS
// (wss), on Boost.Beast with its own network thread.
//
//   WebSocketTestServer server;                    // echoes every frame
//   socket = make(server.url("/kel/ws"));
//   socket->connect();
//   auto connection = server.waitForConnection();  // the first upgraded connection
//   EXPECT_EQ("kel", connection->header("Sec-WebSocket-Protocol"));
//   connection->close(4321);                       // or reset(), sendText(...), ...
//   auto end = connection->waitForEnd();
//
// It accepts any path and any sub-protocol (answering with the first one offered), records the
// upgrade request and every frame received, and answers as Options and the message handler say.
// Waits return when the awaited thing happens, or after their time limit with a negative answer.
// Every member is thread-safe; the message handler runs on the server's thread.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/TestCertificates.h"

namespace kel::test {

namespace detail {
struct WebSocketTestServerImpl;
}  // namespace detail

/// How long the waits of the test support wait by default: far beyond anything a healthy
/// loopback exchange needs, so only a real fault reaches it.
inline constexpr std::chrono::milliseconds kDefaultWait{std::chrono::seconds(10)};

class WebSocketTestServer {
 public:
  struct Options {
    /// Serve wss with this certificate; plain ws when none.
    std::optional<CertifiedKey> tls;
    /// The loopback address to listen on: "127.0.0.1" or "::1".
    std::string address = "127.0.0.1";
    /// Without a message handler, answer each frame with the same frame.
    bool echo = true;
    /// Answer the upgrade request with this HTTP status instead of accepting it (0: accept).
    unsigned rejectUpgradeWithStatus = 0;
    /// Accept TCP connections and then say nothing, not even TLS: a dead server.
    bool stallHandshake = false;
    /// Set-Cookie fields of the upgrade answer.
    std::vector<std::string> setCookies;
    /// The sub-protocol named in the answer; by default the first one the client offered.
    /// An empty text names none.
    std::optional<std::string> subprotocolReply;
  };

  struct Frame {
    bool text = true;
    std::string payload;
    bool operator==(const Frame&) const = default;
  };

  /// How a connection ended.
  struct End {
    /// The client sent a close frame (otherwise the transport simply ended).
    bool closeFrame = false;
    /// Its code; 0 when the frame had none.
    std::uint16_t code = 0;
  };

  /// One upgraded connection. Stays usable after the server is gone (commands then do nothing).
  class Connection {
   public:
    struct State;  // shared with the server's thread
    /// Made by the server.
    explicit Connection(std::shared_ptr<State> state) : state_(std::move(state)) {}

    /// The upgrade request's target (path and query).
    std::string target() const;
    /// The upgrade request's field of that name (case-insensitive), if present.
    std::optional<std::string> header(std::string_view name) const;
    /// Every field of the upgrade request, in order.
    std::vector<std::pair<std::string, std::string>> headers() const;
    /// The host name the client sent with TLS (SNI); none without TLS or SNI.
    std::optional<std::string> serverName() const;

    void sendText(std::string text);
    void sendBinary(std::string bytes);
    /// Sends a close frame with `code`, after the frames sent before.
    void close(std::uint16_t code, std::string reason = {});
    /// Sends a close frame without a code.
    void closeWithoutCode();
    /// Ends the TCP connection without a close frame (FIN; for TLS, no close_notify either).
    void dropTransport();
    /// Resets the TCP connection (RST).
    void reset();
    /// Reads nothing more after the frame being handled (call it from the message handler):
    /// the server turns deaf, answering neither pings nor close frames.
    void stopReading();

    /// The frames received so far, in order.
    std::vector<Frame> frames() const;
    /// Waits until at least `count` frames were received.
    bool waitForFrames(std::size_t count, std::chrono::milliseconds timeout = kDefaultWait) const;
    /// Pong control frames received so far.
    std::size_t pongs() const;
    bool waitForPongs(std::size_t count, std::chrono::milliseconds timeout = kDefaultWait) const;
    /// Waits until at least `count` ping control frames were received.
    bool waitForPings(std::size_t count, std::chrono::milliseconds timeout = kDefaultWait) const;
    /// Waits until the connection has ended; none after `timeout`.
    std::optional<End> waitForEnd(std::chrono::milliseconds timeout = kDefaultWait) const;

   private:
    std::shared_ptr<State> state_;
  };

  using MessageHandler = std::function<void(Connection&, const Frame&)>;

  WebSocketTestServer();
  explicit WebSocketTestServer(Options options);
  /// Ends every connection abruptly and stops the server's thread.
  ~WebSocketTestServer();
  WebSocketTestServer(const WebSocketTestServer&) = delete;
  WebSocketTestServer& operator=(const WebSocketTestServer&) = delete;

  std::uint16_t port() const noexcept { return port_; }
  /// "ws://<address>:<port><path>" ("wss" with TLS).
  std::string url(std::string_view path = "/") const;
  /// The same with another host name, e.g. "localhost" for certificate checks.
  std::string url(std::string_view host, std::string_view path) const;

  /// Replaces the echo: called on the server's thread for every frame received.
  void setMessageHandler(MessageHandler handler);

  /// Waits for the `index`-th upgraded connection (from 0); null after `timeout`.
  std::shared_ptr<Connection> waitForConnection(
      std::size_t index = 0, std::chrono::milliseconds timeout = kDefaultWait) const;
  /// Waits until at least `count` TCP connections were accepted.
  bool waitForAccepted(std::size_t count, std::chrono::milliseconds timeout = kDefaultWait) const;
  std::size_t connectionCount() const;

 private:
  std::unique_ptr<detail::WebSocketTestServerImpl> impl_;
  std::uint16_t port_ = 0;
};

}  // namespace kel::test
