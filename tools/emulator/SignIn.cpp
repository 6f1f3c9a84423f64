#include "emulator/SignIn.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace kel::emulator {

using nlohmann::json;

namespace {

std::int64_t millisecondsSinceEpoch(Session::Clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

bool isTextMember(const json& object, std::string_view key) {
  return object.is_object() && object.contains(key) && object.at(std::string(key)).is_string();
}

}  // namespace

Account defaultAccount(std::string userId, std::optional<std::string> signInToken) {
  Account account;
  account.signInToken = std::move(signInToken);
  account.user = {
      {"id", userId},       {"domain", "emulator.kel"}, {"email", userId + "@emulator.kel"},
      {"username", userId}, {"alias", userId},          {"mobilePhone", json::array()},
      {"role", "user"}};
  account.credential = {{"source", "kel-emulator"},
                        {"user", userId},
                        {"lease", 3600},
                        {"type", "sip"},
                        {"id", "credential-" + userId},
                        {"data", {{"username", userId}, {"password", "emulated"}}}};
  account.capabilities = {{"domain", json::array()}, {"user", json::array()}};
  account.permissions = {{"recording", {{"recordingType", "none"}}},
                         {"voicemail", {{"enabled", true}}}};
  account.userId = std::move(userId);
  return account;
}

SignInRejection SignInRejection::wrongCredentials(int status) {
  return SignInRejection{status, {{"type", "Wrong credentials"}, {"message", "Wrong credentials"}}};
}

SignIn::SignIn(SessionStore& store, std::function<bool(std::string_view)> endSession,
               bool secureCookies, SignInRecording recording)
    : store_(store),
      endSession_(std::move(endSession)),
      secureCookies_(secureCookies),
      recording_(recording) {}

void SignIn::addAccount(Account account) {
  auto defaults = defaultAccount(account.userId);
  if (account.user.is_null()) account.user = std::move(defaults.user);
  if (account.credential.is_null()) account.credential = std::move(defaults.credential);
  if (account.capabilities.is_null()) account.capabilities = std::move(defaults.capabilities);
  if (account.permissions.is_null()) account.permissions = std::move(defaults.permissions);
  if (!store_.user(account.userId)) store_.addUser(User{account.userId, {}});
  std::lock_guard lock(mutex_);
  accounts_.insert_or_assign(account.userId, std::move(account));
}

std::optional<Account> SignIn::account(std::string_view userId) const {
  {
    std::lock_guard lock(mutex_);
    if (auto found = accounts_.find(userId); found != accounts_.end()) return found->second;
  }
  if (!store_.user(userId)) return std::nullopt;
  return defaultAccount(std::string(userId));
}

void SignIn::setAnswer(SignInAnswer answer) {
  std::lock_guard lock(mutex_);
  answer_ = std::move(answer);
}

void SignIn::setRejection(SignInRejection rejection) {
  std::lock_guard lock(mutex_);
  rejection_ = std::move(rejection);
}

std::vector<SignInAttempt> SignIn::attempts() const {
  std::lock_guard lock(mutex_);
  std::vector<SignInAttempt> result;
  result.reserve(attempts_.size());
  for (const auto& [attempt, bytes] : attempts_) result.push_back(attempt);
  return result;
}

std::vector<PushRegistration> SignIn::pushRegistrations() const {
  std::lock_guard lock(mutex_);
  return pushRegistrations_;
}

HttpResponse SignIn::handleLogin(const HttpRequest& request) {
  return signIn(request, false);
}

HttpResponse SignIn::handleSessionToken(const HttpRequest& request) {
  return signIn(request, true);
}

HttpResponse SignIn::signIn(const HttpRequest& request, bool withSessionToken) {
  SignInAttempt attempt;
  attempt.path = request.path;
  attempt.headers = request.headers;
  attempt.bodySize = request.body.size();
  attempt.bodyTruncated = request.body.size() > recording_.payloadBytes;
  const auto body = request.json();
  if (body && isTextMember(*body, "token")) attempt.token = body->at("token").get<std::string>();
  if (body && body->is_object() && !attempt.bodyTruncated) {
    attempt.context = body->value("context", json());
  }

  std::optional<Account> account;
  std::optional<Session> session;
  if (attempt.token) {
    if (withSessionToken) {
      session = store_.validSession(*attempt.token);
      if (session) account = this->account(session->userId);
    } else {
      std::lock_guard lock(mutex_);
      for (const auto& [id, candidate] : accounts_) {
        if (candidate.signInToken == attempt.token) account = candidate;
      }
    }
  }

  std::unique_lock lock(mutex_);
  const auto answer = answer_;
  const auto rejection = rejection_;
  lock.unlock();

  HttpResponse response;
  if (!account) {
    response = HttpResponse::json(rejection.status, rejection.body);
  } else if (answer.rawBody) {
    response.status = answer.status;
    response.body = *answer.rawBody;
    response.contentType = "text/plain";
  } else {
    if (withSessionToken) {
      store_.renewSession(session->token);
      session = store_.session(session->token);
    } else {
      session = store_.createSession(account->userId);
    }
    if (!session) {
      response = HttpResponse::message(500, "the session ended while signing in");
    } else {
      response = answerFor(*session, *account);
      response.status = answer.status;
      auto data = json::parse(response.body);
      for (const auto& key : answer.omitKeys) data.erase(key);
      response.body = data.dump();
    }
  }
  attempt.status = response.status;
  keep(std::move(attempt));
  return response;
}

void SignIn::keep(SignInAttempt attempt) {
  if (recording_.attempts == 0) return;
  // What a request brings in, not what its parsed context occupies (a few times more): a budget
  // a client cannot outgrow by nesting.
  std::size_t bytes = attempt.path.size() + (attempt.bodyTruncated ? 0 : attempt.bodySize);
  for (const auto& [name, value] : attempt.headers) bytes += name.size() + value.size();
  if (bytes > recording_.bytes) return;
  std::lock_guard lock(mutex_);
  attempts_.emplace_back(std::move(attempt), bytes);
  attemptBytes_ += bytes;
  while (attempts_.size() > recording_.attempts || attemptBytes_ > recording_.bytes) {
    attemptBytes_ -= attempts_.front().second;
    attempts_.pop_front();
  }
}

HttpResponse SignIn::answerFor(const Session& session, const Account& account) const {
  json sessionObject = {{"token", session.token},
                        {"id", session.sessionId},
                        {"from", millisecondsSinceEpoch(Session::Clock::now())},
                        {"to", millisecondsSinceEpoch(session.expiry)},
                        {"registered", account.credential.value("id", "")},
                        {"userObj", account.user}};
  json data = {{"access_token", session.token},
               {"token_type", "Bearer"},
               {"session", std::move(sessionObject)},
               {"credential", account.credential},
               {"capabilities", account.capabilities}};
  auto response = HttpResponse::json(200, data);
  std::string cookie = std::string(kSessionCookieName) + "=" + session.sessionId;
  cookie += "; Path=/; HttpOnly";
  if (secureCookies_) cookie += "; Secure";
  response.headers.emplace_back("Set-Cookie", std::move(cookie));
  return response;
}

std::optional<Session> SignIn::ownSession(const ResourceRequest& request) const {
  if (request.rest.empty() || request.rest.find('/') != std::string::npos) return std::nullopt;
  auto session = store_.sessionWithId(request.rest);
  if (!session || session->userId != request.userId) return std::nullopt;
  return session;
}

void SignIn::install(HttpRouter& http, ResourceRouter& resources) {
  http.route("POST", "/login", [this](const HttpRequest& r) { return handleLogin(r); });
  http.route("POST", "/login/sessionToken",
             [this](const HttpRequest& r) { return handleSessionToken(r); });

  resources.route("GET", "/permissions", [this](const ResourceRequest& r) {
    auto own = account(r.userId);
    if (!own) return Reply::message(404, "no account for " + r.userId);
    return Reply::ok(own->permissions);
  });

  // The library asks for "capabilities", a path relative to the server's root.
  resources.route("GET", "/capabilities", [this](const ResourceRequest& r) {
    auto own = account(r.userId);
    if (!own) return Reply::message(404, "no account for " + r.userId);
    return Reply::ok(own->capabilities);
  });

  resources.route("GET", "/users", [this](const ResourceRequest& r) {
    if (r.rest.empty()) return Reply::message(400, "a user id is needed");
    auto found = account(r.rest);
    if (!found) return Reply::message(404, "no user " + r.rest);
    return Reply::ok(found->user);
  });
  resources.route("PUT", "/users", [this](const ResourceRequest& r) {
    if (r.rest != r.userId) return Reply::message(403, "only one's own user can be changed");
    if (!r.body.is_object()) return Reply::message(400, "the body must be a user object");
    auto own = account(r.userId);
    if (!own) return Reply::message(404, "no account for " + r.userId);
    for (const auto& [key, value] : r.body.items()) {
      if (key != "id") own->user[key] = value;
    }
    auto user = own->user;
    std::lock_guard lock(mutex_);
    accounts_.insert_or_assign(own->userId, std::move(*own));
    return Reply::ok(std::move(user));
  });

  resources.route("PUT", "/sessions", [this](const ResourceRequest& r) {
    auto session = ownSession(r);
    if (!session) return Reply::message(404, "no session " + r.rest);
    store_.renewSession(session->token);
    return Reply::ok();
  });
  resources.routeAsync("DELETE", "/sessions", [this](ResourceRequest r, Responder responder) {
    auto session = ownSession(r);
    if (!session) {
      responder.respond(Reply::message(404, "no session " + r.rest));
      return;
    }
    // The answer is queued before the close frame, so the client reads it first.
    responder.respond(Reply::ok());
    endSession_(session->token);
  });

  resources.route("POST", "/pushNotifications", [this](const ResourceRequest& r) {
    const auto& body = r.body;
    if (!isTextMember(body, "deviceId") || !isTextMember(body, "tokenType") ||
        !isTextMember(body, "token")) {
      return Reply::message(400, "\"deviceId\", \"tokenType\" and \"token\" must be texts");
    }
    const auto options = body.value("options", json::object());
    if (!options.is_object() || !options.contains("isProduction") ||
        !options.at("isProduction").is_boolean()) {
      return Reply::message(400, "\"options\" must hold the truth value \"isProduction\"");
    }
    PushRegistration registration{
        r.userId, body.at("deviceId").get<std::string>(), body.at("tokenType").get<std::string>(),
        body.at("token").get<std::string>(), options.at("isProduction").get<bool>()};
    std::lock_guard lock(mutex_);
    std::erase_if(pushRegistrations_, [&](const PushRegistration& p) {
      return p.userId == registration.userId && p.deviceId == registration.deviceId;
    });
    pushRegistrations_.push_back(std::move(registration));
    return Reply::ok();
  });
  resources.route("DELETE", "/pushNotifications", [this](const ResourceRequest& r) {
    if (!isTextMember(r.body, "deviceId")) {
      return Reply::message(400, "\"deviceId\" must be a text");
    }
    const auto deviceId = r.body.at("deviceId").get<std::string>();
    std::lock_guard lock(mutex_);
    std::erase_if(pushRegistrations_, [&](const PushRegistration& p) {
      return p.userId == r.userId && p.deviceId == deviceId;
    });
    return Reply::ok();
  });
}

}  // namespace kel::emulator
