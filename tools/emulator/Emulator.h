#pragma once

/// @file
/// The emulator: a Kel server in-process, for testing an application against (Emulator).

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/Fault.h"
#include "emulator/Frames.h"
#include "emulator/HttpRouter.h"
#include "emulator/Observation.h"
#include "emulator/Options.h"
#include "emulator/ResourceRouter.h"
#include "emulator/SessionStore.h"
#include "emulator/SignIn.h"
#include "emulator/domains/Domains.h"

/// The Kel server emulator: Emulator and what configures, drives and observes it (Options, Fault,
/// Recipients, SocketInfo, fixtures).
namespace kel::emulator {

namespace detail {
class Server;
}

/// How the emulator turns connections away while it refuses them.
enum class RefusalMode {
  /// Accept at the TCP level and reset at once: the client's connection attempt fails, and each
  /// attempt is counted (Counters::connectionsRefused), which lets a test wait for retries.
  reset,
  /// Close the listening socket: the client's attempts are refused by the system, uncounted.
  closeListener,
  /// Accept at the TCP level and then say nothing, not even TLS: a hung server. Each stalled
  /// connection is counted as refused and held until acceptConnections() or stop() resets it.
  stall,
};

/// How sockets are ended on purpose (dropSockets).
enum class DropMode {
  /// TCP reset at once, no close frame.
  reset,
  /// The TCP connection ends in order (FIN) without a close frame, and under TLS without
  /// close_notify: what a client sees of a server that went away mid-connection.
  finish,
};

/// How the emulator answers WebSocket upgrades (setUpgradeAnswer); the default accepts them.
struct UpgradeAnswer {
  /// Answer the upgrade with this HTTP status (e.g. 403 or 503) instead of accepting it; 0
  /// accepts.
  unsigned rejectStatus = 0;
  /// Set-Cookie fields sent with the upgrade's answer (the 101, or the rejection).
  std::vector<std::string> setCookies{};
  /// The sub-protocol named in the answer instead of the first one offered; an empty text names
  /// none. A client should refuse one it did not offer.
  std::optional<std::string> subprotocol{};
};

/// A Kel server for development and tests: the WebSocket protocol and plain HTTP on one port,
/// plain or TLS, with in-memory users and sessions, pluggable resources, pushed events, pings and
/// fault injection.
///
/// ```
/// Emulator emulator;
/// emulator.addUser("alice");
/// auto token = emulator.createSession("alice");
/// auto urls = emulator.start();                    // urls.socketURL: ws://127.0.0.1:PORT/...
/// ... a client connects to urls.socketURL and sends "AUTH " + token ...
/// emulator.waitForSocket([](const SocketInfo& s) { return s.authenticated; }, 5s);
/// emulator.pushEvent(Recipients::user("alice"), "/presence/alice", "PUT", {{"status", "away"}});
/// ```
///
/// The socket, as the emulator serves it:
/// - The upgrade is accepted on any path. The first sub-protocol that the client offers is echoed
///   back; the upgrade's cookies are recorded (SocketInfo::cookies).
/// - "AUTH " + token: a known, unexpired session binds the socket to its user and is acknowledged
///   with `{"kapiId": <id>}`. Any other token closes the socket with
///   Options::invalidTokenCloseCode (4401 unless changed), reason "invalid session token". A
///   later "AUTH " frame re-authenticates, with the same outcomes.
/// - A socket without a valid "AUTH " within Options::authTimeout (10 s) is closed with
///   kAuthTimeoutCloseCode (4408).
/// - Requests are answered through the resource router (resources()). A request on a socket that
///   has not authenticated, or whose session has expired or ended since, is answered 401 with
///   `{"message": "not authenticated"}` and reaches no handler.
/// - Frames that are not "AUTH " or valid requests are counted (SocketInfo::malformedFrames) and
///   ignored; the socket stays open. WebSocket pongs are counted.
/// - Pings ("0") every Options::pingPeriod (none by default), to every open socket.
/// - Plain HTTP requests on the same port go to the HTTP router (http()), where the sign-in
///   routes live (signIn(), SignIn.h) beside whatever a test adds.
///
/// Threads: the network runs on Options::threads threads of the emulator's own; each connection
/// is served on one strand, so a request is read, routed and answered without changing thread.
/// Every public member may be called from any thread, also from handlers, except stop() (and so
/// the destructor), which throws std::logic_error on a network thread; a wait called from a
/// handler blocks that network thread until its time-out.
///
/// Destroying the emulator stops it (stop()). It cannot be copied.
class Emulator {
 public:
  /// An emulator configured by `options`, not listening yet (start()). The sign-in routes, the
  /// echo resource and every domain are installed at once, so that a test can add users,
  /// fixtures and routes before starting.
  explicit Emulator(Options options = {});
  /// Stops (see stop()); must not run on one of the emulator's own network threads.
  ~Emulator();

  Emulator(const Emulator&) = delete;
  Emulator& operator=(const Emulator&) = delete;

  // --- Lifecycle ----------------------------------------------------------------------------

  /// Binds, starts the network threads and returns where the emulator listens. Throws
  /// std::system_error when the address cannot be bound, std::invalid_argument for a host that
  /// is not an IP literal or TLS material that does not load, std::logic_error when called twice
  /// (an emulator serves once; make a new one on the same port to "restart").
  Urls start();
  /// Closes every socket (close frame 1001, "server stopping"; sockets that have not completed
  /// the closing handshake within a second are reset), stops listening and joins the threads.
  /// Idempotent. Handlers' late answers are dropped from then on.
  void stop();
  /// True from start() until stop().
  bool isRunning() const;
  /// The URLs returned by start(); empty before.
  Urls urls() const;
  /// The options the emulator was made with.
  const Options& options() const;

  // --- Accounts -----------------------------------------------------------------------------

  /// The users and sessions (SessionStore.h), for what the members below do not cover.
  SessionStore& sessionStore();
  /// Adds a user that sessions can be made for, or replaces the profile of the user with that
  /// id. Its user record, as sign-in and the domains answer it, is the default one
  /// (defaultAccount) unless addAccount gives another.
  void addUser(std::string id, nlohmann::json profile = nlohmann::json::object());
  /// A new session of a known user; returns its token, a fresh random secret. Lifetime:
  /// `lifetime`, else Options::sessionLifetime. Throws std::invalid_argument for an unknown user.
  std::string createSession(std::string_view userId,
                            std::optional<std::chrono::seconds> lifetime = std::nullopt);
  /// The session of that token, expired or not; nothing for an unknown or ended one.
  std::optional<Session> session(std::string_view token) const;
  /// The session can no longer authenticate a socket; sockets already bound to it stay open, but
  /// their requests are answered 401. False for an unknown token.
  bool expireSession(std::string_view token);
  /// Forgets the session and closes the sockets authenticated with it with `closeCode` (normal
  /// closure: the client reads it as the server having closed the session). False for an
  /// unknown token.
  bool endSession(std::string_view token, std::uint16_t closeCode = 1000);

  // --- Resources ----------------------------------------------------------------------------

  /// The socket's resources; the echo resource (Options::echoPath) is there from the start.
  ResourceRouter& resources();
  /// Plain HTTP on the same port.
  HttpRouter& http();
  /// The sign-in routes and the account resources (SignIn.h), installed from the start.
  SignIn& signIn();
  /// Adds (or replaces) a user together with what signing in answers for it.
  void addAccount(Account account);

  // --- Domains ------------------------------------------------------------------------------
  // Served from the start, each with its own state (see its header and README.md).

  /// Each user's own contacts (domains/UserContacts.h).
  UserContacts& userContacts();
  /// The address books, the directories among them (domains/AddressBooks.h).
  AddressBooks& addressBooks();
  /// Presence records and subscriptions (domains/Presences.h).
  Presences& presences();
  /// Groups and their participants (domains/Groups.h).
  Groups& groups();
  /// Meetings (domains/Meetings.h).
  Meetings& meetings();
  /// The conference log and the missed calls (domains/CallHistory.h).
  CallHistory& callHistory();
  /// Alert templates and raised alerts (domains/Alerts.h).
  Alerts& alerts();
  /// Each user's one-to-one chat list (domains/ChatLists.h).
  ChatLists& chatLists();
  /// The time of the call history and the alerts; a test sets its own to drive alert expiry.
  DomainClock& domainClock();
  /// The operator's call between two users (CallHistory.h): records it in the conference log
  /// (and the callee's missed calls when missed) and pushes its events. Throws
  /// std::invalid_argument for an unknown user. Also on plain HTTP: POST /emulator/calls.
  nlohmann::json placeCall(const PlacedCall& call);
  /// Adds start-up data (Fixture.h): users, their contacts and presences, directories, groups,
  /// meetings, call history, alert templates and chats.
  /// Throws std::invalid_argument, changing nothing, for a fixture that is not valid. Returns the
  /// sessions created for users with a "token".
  std::vector<Session> loadFixture(const nlohmann::json& fixture);

  // --- Server to client ---------------------------------------------------------------------
  // Each returns how many sockets the frame was queued for.

  /// Pushes the event `3{"path", "method", "body"}` to the open sockets `to` selects, after the
  /// frames already queued for them; counted in SocketInfo::eventsSent. Returns how many.
  std::size_t pushEvent(const Recipients& to, std::string_view path, std::string_view method,
                        const nlohmann::json& body);
  /// Sends the ping text frame "0" now (besides Options::pingPeriod's); counted in
  /// SocketInfo::pingsSent. Returns to how many sockets.
  std::size_t sendPing(const Recipients& to);
  /// Sends `text` as one text frame, unchanged. Returns to how many sockets.
  std::size_t sendText(const Recipients& to, std::string text);
  /// Sends `bytes` as one binary frame. Returns to how many sockets.
  std::size_t sendBinary(const Recipients& to, std::string bytes);
  /// Sends malformedFrame(kind) posing as an event (no request id). Returns to how many sockets.
  std::size_t sendMalformed(const Recipients& to, Malformed kind,
                            std::size_t hugeFrameBytes = kDefaultHugeFrameBytes);

  // --- Faults -------------------------------------------------------------------------------

  /// Close frames with the code (after the frames already queued) / TCP resets without a close
  /// frame (at once). Return how many sockets were affected.
  /// A code of 0 sends a close frame without a code (the client sees "no status received").
  std::size_t closeSockets(const Recipients& which, std::uint16_t code, std::string reason = {});
  /// Ends the open sockets `which` selects at once, without a close frame (see DropMode); their
  /// SocketInfo::closedBy reads dropped. Returns how many.
  std::size_t dropSockets(const Recipients& which, DropMode mode = DropMode::reset);
  /// The sockets read nothing more once the frame being read has arrived (a read is always
  /// pending, so that is the client's next frame): they answer neither pings nor close frames,
  /// like a server that hangs. Their client's time limits are what ends them.
  std::size_t deafenSockets(const Recipients& which);

  /// How upgrades are answered from now on.
  void setUpgradeAnswer(UpgradeAnswer answer);

  /// Arms `fault` for the next `count` requests that match `filter`. Armed faults are checked in
  /// the order they were armed; the first that matches a request takes it.
  void faultNextRequests(std::size_t count, Fault fault, RequestFilter filter = {});
  /// Arms `fault` for every request that matches `filter` until clearFaults(); with
  /// filter.socket, that is "every request of this socket".
  void faultAllRequests(Fault fault, RequestFilter filter = {});
  /// Disarms every fault, used up or not.
  void clearFaults();
  /// Armed faults not yet used up.
  std::size_t armedFaults() const;

  /// Turns new connections away, for `duration` or until acceptConnections(). Open sockets are
  /// not affected (drop them with dropSockets to make a client reconnect).
  void refuseConnections(std::optional<std::chrono::milliseconds> duration = std::nullopt,
                         RefusalMode mode = RefusalMode::reset);
  /// Ends a refusal: reopens the listener if it was closed (retrying every 50 ms while the port
  /// is taken) and resets the stalled connections. Asynchronous: isRefusingConnections() turns
  /// false once new connections are served again.
  void acceptConnections();
  /// True from refuseConnections() until the refusal has ended.
  bool isRefusingConnections() const;

  // --- Observation --------------------------------------------------------------------------

  /// Open sockets and the most recently closed ones (up to 1,000), by id.
  std::vector<SocketInfo> sockets() const;
  /// The socket `id`, open or among the closed ones kept; a snapshot.
  std::optional<SocketInfo> socket(SocketId id) const;
  /// Frames received and kept (oldest first; see ReceivedFrame), from every socket or one.
  std::vector<ReceivedFrame> receivedFrames() const;
  /// The kept frames of the socket `id`, oldest first.
  std::vector<ReceivedFrame> receivedFrames(SocketId id) const;
  /// Forgets the kept frames (the counters stay).
  void clearReceivedFrames();
  /// The emulator-wide counters, a snapshot.
  Counters counters() const;

  /// Waits until `condition` holds, re-checking it whenever the emulator's state changes (a
  /// connection, a frame, an authentication, a close, a refusal ending...). `condition` runs on
  /// the calling thread without any lock held, so it may call any member. False on time-out.
  bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) const;
  /// The first socket (lowest id) for which `predicate` holds, waiting for one up to `timeout`.
  std::optional<SocketInfo> waitForSocket(const std::function<bool(const SocketInfo&)>& predicate,
                                          std::chrono::milliseconds timeout) const;

 private:
  std::unique_ptr<detail::Server> server_;
  std::unique_ptr<SignIn> signIn_;
  std::unique_ptr<Domains> domains_;
  /// Expires alerts while the emulator runs (they also expire at the next request to alerts).
  std::jthread alertSweeper_;
};

}  // namespace kel::emulator
