#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/url/url.hpp>

#include "ServerClient/Socket/Client/KelSocketClient.h"
#include "ServerClient/Socket/Client/SocketClient.h"
#include "ServerClient/Socket/Events/ServerEventHandler.h"
#include "ServerClient/Socket/SocketConnector.h"
#include "ServerClient/platform/OvNetworkManager.h"
#include "ServerClient/platform/Socket.h"
#include "ServerClient/rx/Scheduler.h"
#include "ServerClient/rx/Subjects.h"

namespace kel {

/// The period between reconnection attempts of the clients the builder makes.
inline constexpr std::chrono::seconds kReconnectionAttempt{3};

/// What the socket builder takes from the operating system.
struct SocketBuilderPlatform {
  /// Makes the WebSocket for a URL and the sub-protocols to offer; may throw or return null (no
  /// socket: the sign-in fails with GenericError(invalidURL)).
  using SocketFactory = std::function<std::shared_ptr<platform::Socket>(
      const boost::urls::url& url, std::vector<std::string> protocols)>;
  /// Makes the reachability source of one client.
  using NetworkManagerFactory = std::function<std::shared_ptr<platform::OvNetworkManager>()>;

  /// Makes the WebSocket; without one, newSocket() makes nothing.
  SocketFactory makeSocket{};
  /// The shared cookie storage; none: no cookies are sent.
  CookieHeaderProvider cookieHeaders{};
  /// Reachability for each client; none: the network counts as always reachable.
  NetworkManagerFactory makeNetworkManager{};
  /// Schedulers and lifecycle passed to every client; empty members take their defaults.
  KelSocketClient::Options clientOptions{};

  /// The Beast WebSocket, the shared cookie storage and netlink reachability.
  static SocketBuilderPlatform system();
};

/// Makes the socket client of each new session for the server's WebSocket URL.
///
/// newSocket():
///  1. makes the socket for `socketURL` with the sub-protocols of socketSubProtocols();
///  2. lets the platform's cookie storage take part in its upgrade request;
///  3. makes its KelSocketEventHandler;
///  4. makes the KelSocketClient with that socket and handler, `kelEventHandler` for server
///     events, the reconnection period, and a reconnectAuth that reads the current session token
///     through the builder, held weakly (nothing once the builder is gone).
/// The concrete socket, the cookie storage and the reachability source come from `Platform`.
class SocketBuilder : public std::enable_shared_from_this<SocketBuilder> {
 public:
  /// Yields the signed-in user's session token, or nothing.
  using SessionToken = std::function<std::optional<std::string>()>;
  /// See SocketBuilderPlatform::SocketFactory.
  using SocketFactory = SocketBuilderPlatform::SocketFactory;
  /// See SocketBuilderPlatform::NetworkManagerFactory.
  using NetworkManagerFactory = SocketBuilderPlatform::NetworkManagerFactory;

  /// What the builder takes from the operating system.
  using Platform = SocketBuilderPlatform;

  /// `userSession` reads the current session token; tokenOf() makes it from the facade's
  /// subject of the signed-in user's data.
  static std::shared_ptr<SocketBuilder> create(
      boost::urls::url kelURL, boost::urls::url socketURL,
      std::shared_ptr<ServerEventHandler> kelEventHandler, SessionToken userSession,
      Platform platform = Platform::system(),
      rx::Duration reconnectionAttempt = kReconnectionAttempt);

  /// The `token` of the subject's current value; nothing when it holds none or failed.
  template <class Session>
  static SessionToken tokenOf(rx::BehaviorSubject<std::optional<Session>> userSession) {
    return [userSession]() -> std::optional<std::string> {
      try {
        if (auto session = userSession.value()) return session->token;
      } catch (...) {
      }
      return std::nullopt;
    };
  }

  /// A new client for a new session, or null when the platform cannot make a socket (the
  /// reason is logged). The client is new: nothing is opened until its connect() is subscribed.
  std::shared_ptr<SocketClient> newSocket();

  /// The sign-in base URL.
  const boost::urls::url& kelURL() const noexcept { return kelURL_; }
  /// The WebSocket URL each new socket is made for.
  const boost::urls::url& socketURL() const noexcept { return socketURL_; }

 private:
  struct Passkey {
    explicit Passkey() = default;
  };

 public:
  /// For std::make_shared inside create() only (the key is private); use create().
  SocketBuilder(Passkey, boost::urls::url kelURL, boost::urls::url socketURL,
                std::shared_ptr<ServerEventHandler> kelEventHandler, SessionToken userSession,
                Platform platform, rx::Duration reconnectionAttempt);

 private:
  boost::urls::url kelURL_;
  boost::urls::url socketURL_;
  std::shared_ptr<ServerEventHandler> kelEventHandler_;
  SessionToken userSession_;
  Platform platform_;
  rx::Duration reconnectionAttempt_;
};

/// The sub-protocols the builder offers on `socketURL`: its last non-empty path segment, decoded
/// ("wss://host/ws/kel" and "wss://host/ws/kel/" -> {"kel"}). None when there is no such segment
/// ("wss://host", "wss://host/") or it is not an HTTP token ("k%40l" is "k@l"): the upgrade then
/// goes without the header, and a debug line says why.
std::vector<std::string> socketSubProtocols(const boost::urls::url& socketURL);

}  // namespace kel
