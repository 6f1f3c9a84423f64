#pragma once

// Signing in, resuming a session and ending it.
//
// Sign-in is the one exchange that does not use the socket: an HTTP POST of
//   {"token": <token>, "context": {"location", "platform", "deviceId", "useragent"}}
// to the base URL followed directly by "/login" (an outside token) or "/login/sessionToken" (a
// stored session token), answered by the AuthenticationData JSON. The base URL's text is used as
// given: one that ends in "/" yields "//login". Then the socket client in the slot connects with
// the answer's token, and the user's permissions are read over the socket.
//
// Errors of the HTTP exchange reach the caller through adaptSDKError<AuthErrorType>:
//   transport failure       GenericError underlying (the HTTPClientError)
//   status 401, 403         AuthError wrongCredentials, description "HTTP <status>: <body>": the
//                           server does not accept the token, so trying it again is pointless
//                           (the facade's restore stops at this error). The body is shown for
//                           diagnosis only: members named like secrets (token, password, cookie,
//                           session, ...) are masked, the token sent is cut out wherever it
//                           appears, and the text is cut to 200 bytes.
//   other status 400-499    ConnectionError::mapToOvError(status); the body is not read
//   empty body              GenericError invalidResponse, "Invalid response for request: <url>"
//   undecodable body        the decoding error (a {"type": "Wrong credentials", ...} document
//                           becomes that AuthError)
// Any other status, 5xx included, is decoded like a 200. A body that cannot be serialised fails
// with GenericError decoding, unadapted; a target that is not a URL with GenericError invalidURL.
//
// A socket that closes during the sign-in chain (a normal close 1000 from the server included)
// before it is authenticated or before the permissions arrive ends the chain with
// ConnectionError noSocketClient, code -1, kClosedDuringSignIn: the socket is not usable, and a
// new sign-in or restore is what the user can do about it.
//
// Disposing a sign-in does not cancel its HTTP exchange (the server may already have made the
// session): the exchange runs to its end and its result is dropped.
//
// The service keeps no state. Create it with std::make_shared: the sign-in chains hold it weakly
// and fail with UnretainedError::failedRetaining once it is gone. The HTTP answer arrives on the
// HTTP client's thread, the socket steps on the socket layer's schedulers; callers choose where
// they observe.

#include <memory>
#include <string>
#include <string_view>

#include <boost/url/url.hpp>
#include <nlohmann/json.hpp>

#include "ServerClient/Auth/Model/AuthenticationData.h"
#include "ServerClient/Client/SocketService.h"
#include "ServerClient/Socket/Model/PathRepresentable.h"
#include "ServerClient/platform/DeviceInfo.h"
#include "ServerClient/platform/HTTPClient.h"
#include "ServerClient/rx/Observable.h"

namespace kel {

/// The description of the error of a sign-in whose socket closed before it was complete.
inline constexpr std::string_view kClosedDuringSignIn =
    "The server closed the connection during sign-in";

/// Signs in over HTTP, resumes a stored session, reads the user's permissions over the socket
/// and ends the session (see the top of this header for the exchanges and their errors). The
/// facade uses it for connect(), restoreSession() and logout(); an application rarely needs it
/// directly. Nothing is sent before a result is subscribed; each subscription starts its own
/// exchange. Results arrive on the HTTP client's thread or the socket's network thread.
class AuthService : public SocketService {
 public:
  /// The resources: "/login", "/login/sessionToken", "/sessions" and "/permissions".
  enum class Path { login, restoreSession, session, permissions };
  friend constexpr auto pathTable(Path) {
    return makePathTable<Path>({
        {Path::login, "/login"},
        {Path::restoreSession, "/login/sessionToken"},
        {Path::session, "/sessions"},
        {Path::permissions, "/permissions"},
    });
  }

  /// Signs in over `httpClient` and describes the device with `deviceInfo`.
  AuthService(SocketClientSlot socketClient, std::shared_ptr<platform::HTTPClient> httpClient,
              std::shared_ptr<const platform::DeviceInfo> deviceInfo);
  /// The same over a BeastHTTPClient of the shared cookie storage and the system's device
  /// information.
  explicit AuthService(SocketClientSlot socketClient);

  /// The process-wide HTTP client (one I/O thread) and this machine's device information.
  static const std::shared_ptr<platform::HTTPClient>& sharedHTTPClient();
  /// This machine's device information (system, version, model, per-installation identifier),
  /// made on first use.
  static const std::shared_ptr<const platform::DeviceInfo>& systemDeviceInfo();

  /// Full sign-in with an outside token: login, socket connection (through the client in the
  /// slot, with the answer's token), permissions. Fails as described at the top, with
  /// ConnectionError(noSocketClient, -1) when the slot is empty, with the connector's and the
  /// authenticator's ConnectionError(timeout, -1) after 20 s each, and with
  /// UnretainedError::failedRetaining once the service is gone.
  rx::Single<AuthenticationData> registerUser(std::string token, boost::urls::url url,
                                              std::string appVersion);
  /// Resumes a stored session token: the same chain with loginSessionToken.
  rx::Single<AuthenticationData> session(std::string associatedToToken, boost::urls::url url,
                                         std::string appVersion);
  /// Ends `user`'s session over the socket: DELETE `/sessions/<session id>`. The server answers,
  /// then closes the session's sockets with a normal closure. The "Authorization" header that
  /// the request carries stays on this side (Call headers are not transmitted): the socket's own
  /// authentication is what identifies the user.
  rx::Single<rx::Unit> unregister(AuthenticationData user);
  /// `authData` with the permissions read over the socket (GET "/permissions"); fails with the
  /// socket layer's errors or GenericError(decoding).
  rx::Single<AuthenticationData> getPermissions(AuthenticationData authData);

  /// The HTTP call of a sign-in with an outside token alone (POST "<url>/login").
  rx::Single<AuthenticationData> login(std::string token, boost::urls::url url,
                                       std::string appVersion);
  /// The HTTP call of a restore alone (POST "<url>/login/sessionToken" with a session token).
  rx::Single<AuthenticationData> loginSessionToken(std::string token, boost::urls::url url,
                                                   std::string appVersion);
  /// POSTs `data` to `url` and decodes the answer (errors as at the top).
  rx::Single<AuthenticationData> post(std::string url, std::string data);
  /// The "context" object of the sign-in body.
  nlohmann::json getContext(const std::string& appVersion, const boost::urls::url& serverUrl) const;

 private:
  rx::Single<AuthenticationData> signIn(Path path, std::string token, boost::urls::url url,
                                        std::string appVersion);
  rx::Single<AuthenticationData> connectSocket(const AuthenticationData& authData);
  rx::Single<AuthenticationData> signInChain(rx::Single<AuthenticationData> httpSignIn);

  const std::shared_ptr<platform::HTTPClient> httpClient_;
  const std::shared_ptr<const platform::DeviceInfo> deviceInfo_;
};

}  // namespace kel
