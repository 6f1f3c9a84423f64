#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ServerClient/AddressBooks/Model/AddressBookDTO.h"
#include "ServerClient/rx/Single.h"

namespace kel {

/// The address books the user can see, by type ("contacts", "static", "domain", ...).
class AddressBooksService {
 public:
  virtual ~AddressBooksService() = default;

  /// The books of those types, in the server's order. A type named twice is asked for once.
  virtual rx::Single<std::vector<AddressBookDTO>> addressBooks(
      const std::vector<std::string>& types) = 0;
  /// The first contact, in those books, that stands for the server user `userId`; nothing when
  /// none does.
  virtual rx::Single<std::optional<Contact>> contact(const std::vector<std::string>& types,
                                                     const std::string& userId) = 0;
};

/// Address books with an in-memory cache that the application keeps in step with the contact
/// events (AddressBooksEventHandler) through updateCache and deleteCache.
class CacheAddressBooksService : public virtual AddressBooksService {
 public:
  using AddressBooksService::addressBooks;

  /// With `fromCache` and a cache holding any book: the cached books of those types (books
  /// without a type are never returned from it), without a request, in no particular order.
  /// Otherwise the server's answer, which is cached on the way.
  virtual rx::Single<std::vector<AddressBookDTO>> addressBooks(
      const std::vector<std::string>& types, bool fromCache) = 0;
  /// Stores a book with an id and a type under its id; returns it.
  virtual AddressBookDTO updateCache(const AddressBookDTO& addressBook) = 0;
  /// Puts the event's contact into its book (replacing the contact with its id, or appended);
  /// a book not cached yet is created with that one contact. Returns the event.
  virtual AddressBookSocketDTO updateCache(const AddressBookSocketDTO& event) = 0;
  /// Removes the event's contact from its cached book. Returns the event.
  virtual AddressBookSocketDTO deleteCache(const AddressBookSocketDTO& event) = 0;
};

}  // namespace kel
