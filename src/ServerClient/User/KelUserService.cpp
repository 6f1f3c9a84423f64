#include "ServerClient/User/KelUserService.h"

#include <utility>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/Decoding.h"
#include "ServerClient/Utils/JsonCollection.h"

namespace kel {

KelUserService::KelUserService(SocketClientSlot socketClient)
    : SocketService(std::move(socketClient)) {}

rx::Single<User> KelUserService::user(const std::string& id) {
  JsonRequest<Path> request{
      .pathname = {Path::users, {PathRule::append(id)}},
      .body = nlohmann::json::object(),
      .method = "GET",
  };
  return firstResource(sendRequestOrError(std::move(request))).map([](const Resource& resource) {
    return from<User>(resource.data);
  });
}

rx::Observable<User> KelUserService::update(const User& user) {
  nlohmann::json body;
  try {
    body = toCollection(user);
  } catch (...) {
    return rx::Observable<User>::error(std::current_exception());
  }
  JsonRequest<Path> request{
      .pathname = {Path::users, {PathRule::append(user.userId)}},
      .body = std::move(body),
      .method = "PUT",
  };
  return sendRequestOrError(std::move(request)).map([](const Resource& resource) {
    return from<User>(resource.data);
  });
}

rx::Single<std::shared_ptr<const Capabilities>> KelUserService::fetchCapabilities() {
  JsonRequest<Path> request{
      .pathname = Path::capabilities,
      .body = nlohmann::json::object(),
      .method = "GET",
  };
  return firstResource(sendRequestOrError(std::move(request))).map([](const Resource& resource) {
    return from<std::shared_ptr<const Capabilities>>(resource.data);
  });
}

}  // namespace kel
