#pragma once

/// @file
/// How an emulator is configured (Options) and where it can be reached once started (Urls).

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kel::emulator {

/// Close code with which the emulator ends a socket whose "AUTH " frame carries a token that it
/// does not know, or whose session has expired. A private-use code, so that a client (and a person
/// reading its log) can tell a refused token from a network failure or a protocol error; it reads
/// like HTTP's 401.
inline constexpr std::uint16_t kInvalidTokenCloseCode = 4401;

/// Close code with which the emulator ends a socket that did not authenticate within
/// Options::authTimeout; private-use, read like HTTP's 408.
inline constexpr std::uint16_t kAuthTimeoutCloseCode = 4408;

/// Default path of the WebSocket URL that the emulator advertises. The upgrade is accepted on any
/// path; the client offers the URL's last path component ("websocket") as its one sub-protocol.
inline constexpr std::string_view kDefaultSocketPath = "/kel/websocket";

/// Serve TLS with this certificate chain (leaf first) and private key, both PEM text.
struct TlsOptions {
  std::string certificateChainPem;  ///< the certificates, leaf first, PEM text
  std::string privateKeyPem;        ///< the leaf's private key, PEM text
};

/// How an emulator is configured: taken by Emulator's constructor and fixed from then on. Every
/// member has a default that suits a loopback test.
struct Options {
  /// IP literal to listen on: "127.0.0.1", "::1", or "0.0.0.0" for every interface.
  std::string host = "127.0.0.1";
  /// 0 lets the system pick a free port; Urls::port tells which.
  std::uint16_t port = 0;
  /// Plain HTTP and WebSocket when absent; HTTPS and secure WebSocket only when present.
  std::optional<TlsOptions> tls{};
  /// Path of the advertised socket URL (see kDefaultSocketPath).
  std::string socketPath = std::string(kDefaultSocketPath);

  /// The ping frame "0" goes to every open socket at this period; zero turns pings off.
  std::chrono::milliseconds pingPeriod{0};
  /// Lifetime of a session created without an explicit one.
  std::chrono::seconds sessionLifetime{std::chrono::hours(1)};
  /// How long a raised alert stays active before it expires.
  std::chrono::milliseconds alertLifetime{std::chrono::minutes(5)};
  /// See kInvalidTokenCloseCode.
  std::uint16_t invalidTokenCloseCode = kInvalidTokenCloseCode;

  /// Path at which the built-in echo resource answers every method with the request's body at
  /// once; empty to leave it out.
  std::string echoPath = "/echo";

  /// Threads running the network; one is plenty for loopback tests.
  std::size_t threads = 1;
  /// Largest message accepted from a client; a bigger one ends its socket with 1009.
  std::size_t maxMessageBytes = 64 * 1024 * 1024;
  /// Close a socket that has not authenticated (a valid "AUTH " frame) this long after its
  /// upgrade, with kAuthTimeoutCloseCode; zero for never. Idle unauthenticated sockets would
  /// otherwise hold a descriptor each for as long as their client likes.
  std::chrono::milliseconds authTimeout{std::chrono::seconds(10)};

  // What the emulator keeps of what clients send, for Emulator::receivedFrames() and
  // SignIn::attempts(). Always bounded: the oldest entries are forgotten first, by count and by
  // bytes, and a payload longer than recordedPayloadBytes is kept truncated (and marked so).
  // Frames of sockets that have not authenticated are counted but never kept, so an anonymous
  // client cannot make the emulator hold anything.

  /// Keep received frames at all. Benchmarks turn it off to keep the frame path free of copies.
  bool recordFrames = true;
  /// How many received frames are kept.
  std::size_t frameLogLimit = 10'000;
  /// How many payload bytes the kept frames hold together.
  std::size_t frameLogBytes = 16 * 1024 * 1024;
  /// Longest payload kept whole, of a frame or a sign-in body; longer ones are truncated to it.
  std::size_t recordedPayloadBytes = 64 * 1024;
  /// How many sign-in attempts are kept; zero keeps none.
  std::size_t signInAttemptLimit = 1'000;
  /// How many body and header bytes the kept sign-in attempts hold together.
  std::size_t signInAttemptBytes = 4 * 1024 * 1024;

  /// Receives one line per notable event (connections, authentication, closes, refusals, bad
  /// frames); with logFrames also every frame in and out. Called from the network threads, so it
  /// must be thread-safe and quick. Unset: no logging. Lines never carry a control character
  /// (clients' bytes are escaped: a newline as "\\n", others as "\\xNN") nor a whole token or
  /// cookie value.
  std::function<void(std::string_view)> log{};
  /// Also log every frame in and out (with `log` set), secrets redacted and long frames cut.
  bool logFrames = false;
};

/// Where a started emulator can be reached.
struct Urls {
  /// Base URL of the HTTP resources, "http://127.0.0.1:PORT" (https with TLS), no trailing slash.
  std::string kelURL;
  /// URL of the WebSocket, "ws://127.0.0.1:PORT/kel/websocket" (wss with TLS).
  std::string socketURL;
  std::uint16_t port = 0;  ///< the port listened on (the one the system picked for port 0)
};

}  // namespace kel::emulator
