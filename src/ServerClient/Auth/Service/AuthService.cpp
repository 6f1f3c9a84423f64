#include "ServerClient/Auth/Service/AuthService.h"

#include <utility>

#include <boost/url/parse.hpp>

#include "ServerClient/Common/Decoding.h"
#include "ServerClient/Common/Json.h"
#include "ServerClient/Common/Random.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Common/SafeText.h"
#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/Socket/Client/SocketClient.h"
#include "ServerClient/Socket/Model/PathRule.h"
#include "ServerClient/Socket/Model/Request.h"
#include "ServerClient/Utils/UnretainedError.h"
#include "ServerClient/rx/Errors.h"

namespace kel {

namespace {

using platform::HTTPResponse;

rx::Single<AuthenticationData> failure(std::exception_ptr error) {
  return rx::Single<AuthenticationData>::error(std::move(error));
}

// What a refused sign-in's body says, fit for an error description and a log line: secrets
// masked, the token that was sent cut out wherever it appears, controls escaped, and at most
// kMaxRefusalText bytes of it.
constexpr std::size_t kMaxRefusalText = 200;

std::string refusalText(std::string_view body, std::string_view sentToken) {
  std::string text =
      isValidUtf8(body) ? std::string(body) : "<" + std::to_string(body.size()) + " bytes>";
  if (!sentToken.empty()) {
    for (auto at = text.find(sentToken); at != std::string::npos; at = text.find(sentToken, at)) {
      text.replace(at, sentToken.size(), kRedacted);
    }
  }
  return escapeControlCharacters(displayText(text, kMaxRefusalText));
}

// The error of a socket stream that ended without its element: the connection closed (a normal
// close included) before the socket was authenticated or the permissions arrived.
bool endedWithoutElement(const std::exception_ptr& error) {
  if (errorAs<rx::NoElementsError>(error)) return true;
  const auto* generic = errorAs<GenericError>(error);
  return generic != nullptr && generic->type().kind() == GenericErrorType::Kind::underlying &&
         errorAs<rx::NoElementsError>(generic->type().underlyingError()) != nullptr;
}

}  // namespace

AuthService::AuthService(SocketClientSlot socketClient,
                         std::shared_ptr<platform::HTTPClient> httpClient,
                         std::shared_ptr<const platform::DeviceInfo> deviceInfo)
    : SocketService(std::move(socketClient)),
      httpClient_(std::move(httpClient)),
      deviceInfo_(std::move(deviceInfo)) {}

// One client for every service made without one: a single I/O thread for the process.
const std::shared_ptr<platform::HTTPClient>& AuthService::sharedHTTPClient() {
  static const std::shared_ptr<platform::HTTPClient> client =
      std::make_shared<platform::BeastHTTPClient>();
  return client;
}

const std::shared_ptr<const platform::DeviceInfo>& AuthService::systemDeviceInfo() {
  static const std::shared_ptr<const platform::DeviceInfo> info =
      std::make_shared<const platform::LinuxDeviceInfo>();
  return info;
}

AuthService::AuthService(SocketClientSlot socketClient)
    : AuthService(std::move(socketClient), sharedHTTPClient(), systemDeviceInfo()) {}

nlohmann::json AuthService::getContext(const std::string& appVersion,
                                       const boost::urls::url& serverUrl) const {
  const auto systemName = deviceInfo_->systemName();
  // Without an identifier of its own the device is a new one on every sign-in.
  const auto deviceId = deviceInfo_->identifierForVendor().value_or(makeUUIDString());
  return {
      {"location", std::string(serverUrl.buffer())},
      {"platform", systemName},
      {"deviceId", deviceId},
      {"useragent", systemName + " " + deviceInfo_->systemVersion() + ";ModelID - " +
                        deviceInfo_->modelName() + ";App version " + appVersion},
  };
}

rx::Single<AuthenticationData> AuthService::login(std::string token, boost::urls::url url,
                                                  std::string appVersion) {
  return signIn(Path::login, std::move(token), std::move(url), std::move(appVersion));
}

rx::Single<AuthenticationData> AuthService::loginSessionToken(std::string token,
                                                              boost::urls::url url,
                                                              std::string appVersion) {
  return signIn(Path::restoreSession, std::move(token), std::move(url), std::move(appVersion));
}

rx::Single<AuthenticationData> AuthService::signIn(Path path, std::string token,
                                                   boost::urls::url url, std::string appVersion) {
  // Appended as text, separator and all: the server's base URL is used exactly as configured.
  auto target = std::string(url.buffer()) + std::string(rawValue(path));
  const nlohmann::json body = {{"token", std::move(token)},
                               {"context", getContext(appVersion, url)}};
  auto data = dumpJson(body);
  if (!data) {
    return failure(makeError(GenericError(GenericErrorType::decoding(
        body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)))));
  }
  return post(std::move(target), std::move(*data));
}

rx::Single<AuthenticationData> AuthService::post(std::string url, std::string data) {
  auto adapted = [](std::exception_ptr error) {
    return failure(adaptSDKError<AuthErrorType>(std::move(error), ""));
  };
  // The token sent, so that a refusal that echoes it never carries it further.
  std::string sentToken;
  if (const auto body = parseJson(data); body && body->is_object()) {
    if (const auto token = body->find("token"); token != body->end() && token->is_string()) {
      sentToken = token->get<std::string>();
    }
  }
  auto parsed = boost::urls::parse_absolute_uri(url);
  if (!parsed) {
    KEL_LOG_ERROR("post(url:data:)", "Invalid URL " + redactSecrets(url));
    return adapted(makeError(GenericError(GenericErrorType::invalidURL(url))));
  }
  platform::HTTPRequest request("POST", boost::urls::url(*parsed));
  request.timeout = platform::HTTPRequest::kDefaultTimeout;
  request.body = std::move(data);
  request.addValue("application/json", "Content-Type");
  request.addValue("application/json", "Accept");

  return platform::dataTask(httpClient_, std::move(request))
      .catchError([url](std::exception_ptr error) {
        KEL_LOG_ERROR("post(url:data:)", "Error for the request to " + redactSecrets(url) +
                                             " :: " + describeError(error));
        return rx::Single<HTTPResponse>::error(
            makeError(GenericError(GenericErrorType::underlying(error))));
      })
      .map([url, sentToken](const HTTPResponse& response) {
        const auto status = response.statusCode;
        if (status >= 400 && status <= 499) {
          KEL_LOG_ERROR("post(url:data:)", "Error code " + std::to_string(status) +
                                               " for the request to " + redactSecrets(url));
          // The server does not know the token: signing in with it again cannot succeed, so
          // this is the error that stops the facade's restore retries.
          if (status == 401 || status == 403) {
            throw AuthError(
                AuthErrorType::wrongCredentials,
                "HTTP " + std::to_string(status) + ": " + refusalText(response.body, sentToken));
          }
          throw ConnectionError::mapToOvError(status);
        }
        if (response.body.empty()) {
          KEL_LOG_ERROR("post(url:data:)", "Invalid response for request to " + redactSecrets(url));
          throw GenericError(GenericErrorType::invalidResponse(),
                             "Invalid response for request: " + redactSecrets(url));
        }
        return from<AuthenticationData>(response.body);
      })
      .catchError(adapted);
}

rx::Single<AuthenticationData> AuthService::connectSocket(const AuthenticationData& authData) {
  auto self = weakSelf(this).lock();
  if (!self) return failure(makeError(UnretainedError::failedRetaining()));
  auto client = socketClient().value();
  if (!client) {
    return failure(makeError(ConnectionError(ConnectionErrorType::noSocketClient, -1, "")));
  }
  return client->connect(authData.token)
      .take(1)
      .map([authData](const rx::Unit&) { return authData; })
      .asSingle();
}

rx::Single<AuthenticationData> AuthService::signInChain(rx::Single<AuthenticationData> httpSignIn) {
  std::weak_ptr<AuthService> weak = weakSelf(this);
  const auto closedDuringSignIn = [](std::exception_ptr error) {
    if (endedWithoutElement(error)) {
      return failure(makeError(ConnectionError(ConnectionErrorType::noSocketClient, -1,
                                               std::string(kClosedDuringSignIn))));
    }
    return failure(std::move(error));
  };
  return httpSignIn
      .flatMap([weak](const AuthenticationData& authData) {
        auto self = weak.lock();
        if (!self) return failure(makeError(UnretainedError::failedRetaining()));
        return self->connectSocket(authData);
      })
      .flatMap([weak](const AuthenticationData& authData) {
        auto self = weak.lock();
        if (!self) return failure(makeError(UnretainedError::failedRetaining()));
        return self->getPermissions(authData);
      })
      .catchError(closedDuringSignIn);
}

rx::Single<AuthenticationData> AuthService::registerUser(std::string token, boost::urls::url url,
                                                         std::string appVersion) {
  return signInChain(login(std::move(token), std::move(url), std::move(appVersion)));
}

rx::Single<AuthenticationData> AuthService::session(std::string associatedToToken,
                                                    boost::urls::url url, std::string appVersion) {
  return signInChain(
      loginSessionToken(std::move(associatedToToken), std::move(url), std::move(appVersion)));
}

rx::Single<AuthenticationData> AuthService::getPermissions(AuthenticationData authData) {
  return fetch<Permissions>(Call<Path>{.pathname = Path::permissions,
                                       .method = "GET",
                                       .body = nlohmann::json::object()})
      .map([authData = std::move(authData)](const Permissions& permissions) {
        auto updated = authData;
        updated.permissions = permissions;
        return updated;
      });
}

rx::Single<rx::Unit> AuthService::unregister(AuthenticationData user) {
  return fetch<rx::Unit>(Call<Path>{
      .pathname = Pathname<Path>(Path::session, {PathRule::append(user.session.sessionID)}),
      .method = "DELETE",
      .body = nlohmann::json::object(),
      .headers = {{"Authorization", user.tokenType + " " + user.token}}});
}

}  // namespace kel
