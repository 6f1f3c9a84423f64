#include "ServerClient/AddressBooks/Service/KelAddressBooksService.h"

#include <utility>

#include "ServerClient/Utils/JsonCollection.h"
#include "ServerClient/Utils/QueryBuilder.h"

namespace kel {

KelAddressBooksService::KelAddressBooksService(SocketClientSlot socketClient)
    : SocketService(std::move(socketClient)) {}

rx::Single<std::vector<AddressBookDTO>> KelAddressBooksService::addressBooks(
    const std::vector<std::string>& types) {
  // A map has one entry per type, so a type named twice is asked for once.
  QueryBuilder::Parameters parameters;
  for (const auto& type : types) parameters.insert_or_assign(type, QueryValue(true));
  Call<Path> call{.pathname = {Path::addressBooks,
                               {PathRule::query(QueryBuilder(std::move(parameters)).build())}},
                  .method = "GET"};
  return firstResource(send(std::move(call))).map([](const Resource& resource) {
    return fromArray<AddressBookDTO>(dataFor(resource.data, "addressBooks"));
  });
}

rx::Single<std::optional<Contact>> KelAddressBooksService::contact(
    const std::vector<std::string>& types, const std::string& userId) {
  return addressBooks(types).map([userId](const std::vector<AddressBookDTO>& books) {
    for (const auto& book : books) {
      if (!book.contacts) continue;
      for (const auto& contact : *book.contacts) {
        if (contact.associatedUserId == userId) return std::optional<Contact>(contact);
      }
    }
    return std::optional<Contact>();
  });
}

}  // namespace kel
