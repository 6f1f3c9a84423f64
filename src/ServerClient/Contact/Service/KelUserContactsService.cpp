#include "ServerClient/Contact/Service/KelUserContactsService.h"

#include <utility>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/Json.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Utils/JsonCollection.h"

namespace kel {

namespace {

/// The server accepts a change with an empty answer; anything else is its error message.
rx::Single<rx::Unit> accepted(rx::Single<Resource> answer) {
  return answer.map([](const Resource& resource) {
    if (!resource.data.empty()) {
      throw GenericError(GenericErrorType::invalidResponse(),
                         isValidUtf8(resource.data) ? resource.data : std::string());
    }
    return rx::Unit{};
  });
}

}  // namespace

KelUserContactsService::KelUserContactsService(SocketClientSlot socketClient)
    : SocketService(std::move(socketClient)) {}

rx::Single<rx::Unit> KelUserContactsService::add(const Contact& contact) {
  try {
    return accepted(firstResource(send(Call<Path>{
        .pathname = Path::userContacts, .method = "POST", .body = toCollection(contact)})));
  } catch (...) {
    return rx::Single<rx::Unit>::error(std::current_exception());
  }
}

rx::Single<rx::Unit> KelUserContactsService::update(const Contact& contact) {
  try {
    return accepted(firstResource(
        send(Call<Path>{.pathname = {Path::userContacts, {PathRule::append(contact.id)}},
                        .method = "PUT",
                        .body = toCollection(contact)})));
  } catch (...) {
    return rx::Single<rx::Unit>::error(std::current_exception());
  }
}

rx::Single<rx::Unit> KelUserContactsService::deleteContact(const Contact& contact) {
  return accepted(firstResource(
      send(Call<Path>{.pathname = {Path::userContacts, {PathRule::append(contact.id)}},
                      .method = "DELETE",
                      .body = nlohmann::json::object()})));
}

}  // namespace kel
