#include "ServerClient/AddressBooks/Service/KelCacheAddressBooksService.h"

#include <algorithm>
#include <utility>

#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/Utils/Description.h"

namespace kel {

namespace {

bool isListed(const AddressBookDTO& book, const std::vector<std::string>& types) {
  return book.type && std::find(types.begin(), types.end(), rawValue(*book.type)) != types.end();
}

}  // namespace

KelCacheAddressBooksService::KelCacheAddressBooksService(SocketClientSlot socketClient)
    : KelAddressBooksService(std::move(socketClient)) {}

rx::Single<std::vector<AddressBookDTO>> KelCacheAddressBooksService::addressBooks(
    const std::vector<std::string>& types, bool fromCache) {
  if (fromCache) {
    std::unique_lock lock(mutex_);
    if (!addressBooks_.empty()) {
      KEL_LOG_DEBUG("addressBooks(for:fromCache:)",
                    "AddressBooks from cache: " + textForm(addressBooks_));
      std::vector<AddressBookDTO> cached;
      for (const auto& [id, book] : addressBooks_) {
        if (isListed(book, types)) cached.push_back(book);
      }
      lock.unlock();
      return rx::Single<std::vector<AddressBookDTO>>::just(std::move(cached));
    }
  }
  return addressBooks(types).map([weak = weakSelf(this)](const std::vector<AddressBookDTO>& books) {
    if (auto self = weak.lock()) {
      for (const auto& book : books) self->updateCache(book);
    }
    return books;
  });
}

rx::Single<std::optional<Contact>> KelCacheAddressBooksService::contact(
    const std::vector<std::string>& types, const std::string& userId) {
  std::optional<Contact> found;
  {
    std::lock_guard lock(mutex_);
    if (addressBooks_.empty()) return KelAddressBooksService::contact(types, userId);
    for (const auto& [id, book] : addressBooks_) {
      if (!isListed(book, types) || !book.contacts) continue;
      const auto& contacts = *book.contacts;
      const auto match = std::find_if(contacts.begin(), contacts.end(), [&](const Contact& c) {
        return c.associatedUserId == userId;
      });
      // The last book holding a match wins.
      if (match != contacts.end()) found = *match;
    }
  }
  return rx::Single<std::optional<Contact>>::just(std::move(found));
}

AddressBookDTO KelCacheAddressBooksService::updateCache(const AddressBookDTO& addressBook) {
  if (!addressBook.id || !addressBook.type) {
    KEL_LOG_VERBOSE("updateCache(_:)",
                    "AddressBook cache NOT updated: " + description(addressBook));
    return addressBook;
  }
  KEL_LOG_VERBOSE("updateCache(_:)", "AddressBook cache updated: " + description(addressBook));
  std::lock_guard lock(mutex_);
  addressBooks_.insert_or_assign(*addressBook.id, addressBook);
  return addressBook;
}

AddressBookSocketDTO KelCacheAddressBooksService::updateCache(const AddressBookSocketDTO& event) {
  if (!event.id || !event.type || !event.contact) {
    KEL_LOG_VERBOSE("updateCache(_:)",
                    "AddressBookSocket cache NOT updated: " + description(event));
    return event;
  }
  KEL_LOG_VERBOSE("updateCache(_:)", "AddressBookSocket cache updated: " + description(event));
  std::lock_guard lock(mutex_);
  auto cached = addressBooks_.find(*event.id);
  if (cached == addressBooks_.end()) {
    addressBooks_.emplace(*event.id, AddressBookDTO{.id = event.id,
                                                    .name = std::nullopt,
                                                    .type = event.type,
                                                    .contacts = std::vector{*event.contact}});
    return event;
  }
  auto& contacts = cached->second.contacts;
  // A book cached without a contact list was not sent with its contacts: adding one would make
  // it look complete.
  if (!contacts) return event;
  auto same = std::find_if(contacts->begin(), contacts->end(),
                           [&](const Contact& c) { return c.id == event.contact->id; });
  if (same != contacts->end()) {
    *same = *event.contact;
  } else {
    contacts->push_back(*event.contact);
  }
  return event;
}

AddressBookSocketDTO KelCacheAddressBooksService::deleteCache(const AddressBookSocketDTO& event) {
  if (!event.id) {
    KEL_LOG_VERBOSE("deleteCache(_:)",
                    "AddressBookSocket cache NOT deleted: " + description(event));
    return event;
  }
  KEL_LOG_VERBOSE("deleteCache(_:)", "AddressBookSocket cache deleted: " + description(event));
  if (!event.contact) return event;
  std::lock_guard lock(mutex_);
  auto cached = addressBooks_.find(*event.id);
  if (cached == addressBooks_.end() || !cached->second.contacts) return event;
  auto& contacts = *cached->second.contacts;
  auto same = std::find_if(contacts.begin(), contacts.end(),
                           [&](const Contact& c) { return c.id == event.contact->id; });
  if (same != contacts.end()) contacts.erase(same);
  return event;
}

std::map<std::string, AddressBookDTO> KelCacheAddressBooksService::cachedAddressBooks() const {
  std::lock_guard lock(mutex_);
  return addressBooks_;
}

}  // namespace kel
