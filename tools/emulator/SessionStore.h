#pragma once

// The emulator's accounts: users and their sessions. The socket authenticates with a session
// token; the HTTP sign-in will create sessions here; tests and the command line set both up.
//
// Session lifecycle:
//
//   createSession --> valid --(expiry passes, or expireSession)--> expired --renewSession--> valid
//                       |                                             |
//                       +------------------- endSession --------------+--> gone (forgotten)
//
// Every member is safe to call from any thread.

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace kel::emulator {

struct User {
  std::string id;
  /// Whatever the resources need to know about the user (name, e-mail, ...); free-form.
  nlohmann::json profile = nlohmann::json::object();
};

struct Session {
  using Clock = std::chrono::system_clock;

  /// What the client sends in "AUTH "; secret.
  std::string token;
  /// Public identifier, e.g. for ending the session with DELETE /sessions/<id>.
  std::string sessionId;
  std::string userId;
  Clock::time_point expiry;

  bool isValidAt(Clock::time_point now) const noexcept { return now < expiry; }
};

class SessionStore {
 public:
  using Clock = Session::Clock;

  explicit SessionStore(std::chrono::seconds defaultLifetime = std::chrono::hours(1));

  /// Adds the user, or replaces the profile of the user with that id.
  void addUser(User user);
  std::optional<User> user(std::string_view id) const;
  std::vector<User> users() const;

  /// A new session of a known user, with a fresh random token and session id unless `token` is
  /// given. Throws std::invalid_argument for an unknown user, an empty token or a token in use.
  Session createSession(std::string_view userId,
                        std::optional<std::chrono::seconds> lifetime = std::nullopt,
                        std::optional<std::string> token = std::nullopt);

  /// True when the session of that token exists and has not expired.
  bool isValid(std::string_view token) const;
  /// The session of that token if it exists and has not expired.
  std::optional<Session> validSession(std::string_view token) const;
  /// The session of that token, expired or not.
  std::optional<Session> session(std::string_view token) const;
  std::optional<Session> sessionWithId(std::string_view sessionId) const;
  std::vector<Session> sessions() const;
  std::vector<Session> sessionsOf(std::string_view userId) const;

  /// Moves the expiry to now. False for an unknown token.
  bool expireSession(std::string_view token);
  /// Moves the expiry to now + lifetime (default: the store's); revives an expired session.
  /// False for an unknown token.
  bool renewSession(std::string_view token,
                    std::optional<std::chrono::seconds> lifetime = std::nullopt);
  /// Forgets the session; returns it, or nothing for an unknown token.
  std::optional<Session> endSession(std::string_view token);

 private:
  const std::chrono::seconds defaultLifetime_;
  mutable std::mutex mutex_;  // guards users_ and sessions_
  std::map<std::string, User, std::less<>> users_;
  std::map<std::string, Session, std::less<>> sessions_;  // by token
};

}  // namespace kel::emulator
