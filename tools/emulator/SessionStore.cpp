#include "emulator/SessionStore.h"

#include <stdexcept>
#include <utility>

#include "ServerClient/Common/Random.h"

namespace kel::emulator {

namespace {

// Long enough that guessing is hopeless, letters and digits only so it travels in a frame, a
// header or a JSON text without escaping.
constexpr std::size_t kTokenLength = 40;

}  // namespace

SessionStore::SessionStore(std::chrono::seconds defaultLifetime)
    : defaultLifetime_(defaultLifetime) {}

void SessionStore::addUser(User user) {
  std::lock_guard lock(mutex_);
  auto id = user.id;
  users_.insert_or_assign(std::move(id), std::move(user));
}

std::optional<User> SessionStore::user(std::string_view id) const {
  std::lock_guard lock(mutex_);
  auto it = users_.find(id);
  if (it == users_.end()) return std::nullopt;
  return it->second;
}

std::vector<User> SessionStore::users() const {
  std::lock_guard lock(mutex_);
  std::vector<User> result;
  result.reserve(users_.size());
  for (const auto& [id, user] : users_) result.push_back(user);
  return result;
}

Session SessionStore::createSession(std::string_view userId,
                                    std::optional<std::chrono::seconds> lifetime,
                                    std::optional<std::string> token) {
  if (token && token->empty()) throw std::invalid_argument("a session token cannot be empty");
  std::lock_guard lock(mutex_);
  if (!users_.contains(userId)) {
    throw std::invalid_argument("no user with id \"" + std::string(userId) + "\"");
  }
  Session session;
  if (token) {
    if (sessions_.contains(*token)) throw std::invalid_argument("session token already in use");
    session.token = std::move(*token);
  } else {
    do {
      session.token = randomString(kTokenLength);
    } while (sessions_.contains(session.token));
  }
  session.sessionId = makeUUIDString();
  session.userId = std::string(userId);
  session.expiry = Clock::now() + lifetime.value_or(defaultLifetime_);
  sessions_.emplace(session.token, session);
  return session;
}

bool SessionStore::isValid(std::string_view token) const {
  std::lock_guard lock(mutex_);
  auto it = sessions_.find(token);
  return it != sessions_.end() && it->second.isValidAt(Clock::now());
}

std::optional<Session> SessionStore::validSession(std::string_view token) const {
  std::lock_guard lock(mutex_);
  auto it = sessions_.find(token);
  if (it == sessions_.end() || !it->second.isValidAt(Clock::now())) return std::nullopt;
  return it->second;
}

std::optional<Session> SessionStore::session(std::string_view token) const {
  std::lock_guard lock(mutex_);
  auto it = sessions_.find(token);
  if (it == sessions_.end()) return std::nullopt;
  return it->second;
}

std::optional<Session> SessionStore::sessionWithId(std::string_view sessionId) const {
  std::lock_guard lock(mutex_);
  for (const auto& [token, session] : sessions_) {
    if (session.sessionId == sessionId) return session;
  }
  return std::nullopt;
}

std::vector<Session> SessionStore::sessions() const {
  std::lock_guard lock(mutex_);
  std::vector<Session> result;
  result.reserve(sessions_.size());
  for (const auto& [token, session] : sessions_) result.push_back(session);
  return result;
}

std::vector<Session> SessionStore::sessionsOf(std::string_view userId) const {
  std::lock_guard lock(mutex_);
  std::vector<Session> result;
  for (const auto& [token, session] : sessions_) {
    if (session.userId == userId) result.push_back(session);
  }
  return result;
}

bool SessionStore::expireSession(std::string_view token) {
  std::lock_guard lock(mutex_);
  auto it = sessions_.find(token);
  if (it == sessions_.end()) return false;
  it->second.expiry = Clock::now();
  return true;
}

bool SessionStore::renewSession(std::string_view token,
                                std::optional<std::chrono::seconds> lifetime) {
  std::lock_guard lock(mutex_);
  auto it = sessions_.find(token);
  if (it == sessions_.end()) return false;
  it->second.expiry = Clock::now() + lifetime.value_or(defaultLifetime_);
  return true;
}

std::optional<Session> SessionStore::endSession(std::string_view token) {
  std::lock_guard lock(mutex_);
  auto it = sessions_.find(token);
  if (it == sessions_.end()) return std::nullopt;
  Session ended = std::move(it->second);
  sessions_.erase(it);
  return ended;
}

}  // namespace kel::emulator
