#pragma once

// The emulator's sign-in side and the account resources that go with it.
//
// HTTP (on the emulator's port):
//   POST /login               {"token": <sign-in token>, "context": {...}}
//   POST /login/sessionToken  {"token": <session token>, "context": {...}}
// A known token is answered with the user's session data (below) and a session cookie
// (kSessionCookieName = the session id; Path=/; HttpOnly; Secure under TLS). /login creates a
// new session for the account whose sign-in token it is; /login/sessionToken renews the valid
// session of that token. Any other token, or a body without a text "token", gets the rejection
// (401 {"message": "invalid token"} unless changed).
//
// The session data, one JSON object:
//   {"access_token": <session token>, "token_type": "Bearer",
//    "session": {"token": <session token>, "id": <session id>, "from": <ms since 1970>,
//                "to": <expiry, ms since 1970>, "registered": <credential id>,
//                "userObj": <the account's user>},
//    "credential": <the account's credential>, "capabilities": <the account's capabilities>}
//
// Socket resources (authenticated sockets only):
//   GET    /permissions            the requester's permissions
//   GET    /users/<id>             the user record of <id>; 404 for an unknown user
//   PUT    /users/<id>             the requester's own record only (403 otherwise): the body's
//                                  members replace the stored ones ("id" excepted); answers the
//                                  new record
//   PUT    /sessions/<session id>  renews one of the requester's sessions; 404 otherwise
//   DELETE /sessions/<session id>  answers, then ends the session and closes its sockets with
//                                  1000; 404 for a session that is not the requester's
//   POST   /pushNotifications      {"deviceId", "tokenType", "token", "options": {"isProduction"}}
//                                  registers (replacing the device's earlier registration)
//   DELETE /pushNotifications      {"deviceId"} removes the device's registration
// Malformed bodies are answered 400 {"message": ...}.
//
// Every member is safe to call from any thread.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/HttpRouter.h"
#include "emulator/ResourceRouter.h"
#include "emulator/SessionStore.h"

namespace kel::emulator {

inline constexpr std::string_view kSessionCookieName = "KELSESSIONID";

/// What the sign-in answers for one user. Fields left empty are filled in from the user id when
/// the account is added (see defaultAccount()).
struct Account {
  std::string userId;
  /// The outside token that POST /login accepts for this user; none: only session tokens work.
  std::optional<std::string> signInToken;
  /// The "userObj": "id", "domain", "email", "username", "alias", "mobilePhone", "role".
  nlohmann::json user;
  /// "source", "user", "lease", "type", "id", "data".
  nlohmann::json credential;
  /// {"domain": [...], "user": [...]}.
  nlohmann::json capabilities;
  /// {"recording": {...}, "voicemail": {...}}.
  nlohmann::json permissions;
};

/// The account of `userId` with every record filled in with plausible values.
Account defaultAccount(std::string userId, std::optional<std::string> signInToken = std::nullopt);

/// How accepted sign-ins are answered.
struct SignInAnswer {
  /// E.g. 500: a server error that still carries valid data.
  int status = 200;
  /// Top-level keys left out of the session data, e.g. "credential".
  std::vector<std::string> omitKeys{};
  /// Sent verbatim instead of the session data, as text/plain (nothing is created then).
  std::optional<std::string> rawBody{};
};

/// How refused tokens are answered.
struct SignInRejection {
  int status = 401;
  nlohmann::json body = {{"message", "invalid token"}};

  /// The server's "wrong credentials" document {"type": "Wrong credentials", "message": ...},
  /// with a status that lets the client read it.
  static SignInRejection wrongCredentials(int status = 500);
};

/// One sign-in request as received.
struct SignInAttempt {
  std::string path;
  std::optional<std::string> token;
  /// The body's "context"; left null when the body was longer than the emulator keeps
  /// (Options::recordedPayloadBytes), which bodyTruncated then says.
  nlohmann::json context;
  HeaderFields headers;
  /// The status answered.
  int status = 0;
  std::size_t bodySize = 0;
  bool bodyTruncated = false;
};

struct PushRegistration {
  std::string userId;
  std::string deviceId;
  std::string tokenType;
  std::string token;
  bool isProduction = false;
};

/// What is kept of sign-in attempts: the most recent, up to `attempts` of them holding up to
/// `bytes` of bodies and header fields together; the context of a body longer than
/// `payloadBytes` is not kept.
struct SignInRecording {
  std::size_t attempts = 1'000;
  std::size_t bytes = 4 * 1024 * 1024;
  std::size_t payloadBytes = 64 * 1024;
};

class SignIn {
 public:
  /// `endSession` forgets a session and closes its sockets (Emulator::endSession).
  SignIn(SessionStore& store, std::function<bool(std::string_view token)> endSession,
         bool secureCookies, SignInRecording recording = {});

  SignIn(const SignIn&) = delete;
  SignIn& operator=(const SignIn&) = delete;

  /// Adds the routes above.
  void install(HttpRouter& http, ResourceRouter& resources);

  /// Adds or replaces the account (empty records are filled in) and adds its user to the store.
  void addAccount(Account account);
  /// The account of a user: the one added, else the default one of a user the store knows.
  std::optional<Account> account(std::string_view userId) const;

  void setAnswer(SignInAnswer answer);
  void setRejection(SignInRejection rejection);

  /// The sign-in requests kept (see Recording), oldest first.
  std::vector<SignInAttempt> attempts() const;
  std::vector<PushRegistration> pushRegistrations() const;

  /// The answers of the two HTTP routes, for use without a network.
  HttpResponse handleLogin(const HttpRequest& request);
  HttpResponse handleSessionToken(const HttpRequest& request);

 private:
  HttpResponse signIn(const HttpRequest& request, bool withSessionToken);
  HttpResponse answerFor(const Session& session, const Account& account) const;
  void keep(SignInAttempt attempt);
  std::optional<Session> ownSession(const ResourceRequest& request) const;

  SessionStore& store_;
  const std::function<bool(std::string_view)> endSession_;
  const bool secureCookies_;
  const SignInRecording recording_;

  mutable std::mutex mutex_;  // guards the members below
  std::map<std::string, Account, std::less<>> accounts_;
  SignInAnswer answer_;
  SignInRejection rejection_;
  std::deque<std::pair<SignInAttempt, std::size_t>> attempts_;  // with its bytes
  std::size_t attemptBytes_ = 0;
  std::vector<PushRegistration> pushRegistrations_;
};

}  // namespace kel::emulator
