#include "cli/Output.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "ServerClient/Common/SDKError.h"

namespace kel::cli {

std::string timestamp() {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const std::time_t seconds = system_clock::to_time_t(now);
  const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[32];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<int>(millis));
  return text;
}

namespace {
std::mutex narrationMutex;
std::FILE* narration = nullptr;  // stdout when null
}  // namespace

void narrateTo(std::FILE* stream) {
  std::lock_guard lock(narrationMutex);
  narration = stream;
}

void say(std::string_view text) {
  const auto line = timestamp() + "  " + std::string(text) + "\n";
  std::lock_guard lock(narrationMutex);
  std::FILE* stream = narration != nullptr ? narration : stdout;
  std::fwrite(line.data(), 1, line.size(), stream);
  std::fflush(stream);
}

std::string errorKind(const std::exception_ptr& error) {
  if (const auto* auth = errorAs<AuthError>(error)) {
    return "auth/" + std::string(rawValue(auth->type()));
  }
  if (const auto* connection = errorAs<ConnectionError>(error)) {
    return "connection/" + std::string(rawValue(connection->type()));
  }
  if (const auto* generic = errorAs<GenericError>(error)) {
    return "generic/" + std::string(generic->type().rawValue());
  }
  return error ? "other" : "none";
}

nlohmann::json errorJson(const std::exception_ptr& error) {
  return {{"kind", errorKind(error)}, {"message", describeError(error)}};
}

nlohmann::json userJson(const User& user) {
  return {{"id", user.userId},
          {"domain", user.domain},
          {"email", user.email},
          {"username", user.username},
          {"alias", user.alias},
          {"role", user.role},
          {"mobilePhones", user.mobilePhones}};
}

nlohmann::json sessionJson(const AuthenticationData& data) {
  nlohmann::json json = {{"user", userJson(data.user)},
                         {"session", {{"id", data.session.sessionID}, {"to", data.session.to}}}};
  json["capabilities"] =
      data.capabilities ? nlohmann::json(data.capabilities->active()) : nlohmann::json::array();
  return json;
}

}  // namespace kel::cli
