#include "ServerClient/User/KelUserService.h"

#include <utility>

#include <nlohmann/json.hpp>

#include "ServerClient/Utils/JsonCollection.h"

namespace kel {

KelUserService::KelUserService(SocketClientSlot socketClient)
    : SocketService(std::move(socketClient)) {}

rx::Single<User> KelUserService::user(const std::string& id) {
  return fetch<User>(Call<Path>{.pathname = {Path::users, {PathRule::append(id)}},
                                .method = "GET",
                                .body = nlohmann::json::object()});
}

rx::Observable<User> KelUserService::update(const User& user) {
  nlohmann::json body;
  try {
    body = toCollection(user);
  } catch (...) {
    return rx::Observable<User>::error(std::current_exception());
  }
  return send(Call<Path>{.pathname = {Path::users, {PathRule::append(user.userId)}},
                         .method = "PUT",
                         .body = std::move(body)})
      .map(&decode<User>);
}

rx::Single<std::shared_ptr<const Capabilities>> KelUserService::fetchCapabilities() {
  return fetch<std::shared_ptr<const Capabilities>>(Call<Path>{
      .pathname = Path::capabilities, .method = "GET", .body = nlohmann::json::object()});
}

}  // namespace kel
