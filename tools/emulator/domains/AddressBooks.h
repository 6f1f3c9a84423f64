#pragma once

// Address books: each user's own contacts book (from UserContacts) and the directories that the
// operator configures (fixture "directories", or addBook), shared by every user.
//
//   GET /addressbooks?contacts=true&static=true...
//       {"addressBooks": [{"id", "name", "type", "contacts": [contact, ...]}, ...]}
//
// One query key per type; a key with the value "true" asks for that type ("false" does not).
// Without any key every book is answered. The requester's contacts book ("contacts-<user id>",
// type "contacts") comes first, then the directories in the order they were added. An unknown
// type or a value other than "true" and "false" is answered 400.
//
// Types: "contacts", "static", "domain", "phonebooks", "groups", "azureOrgContacts",
// "azureOrgUsers", "azurePersonalContacts"; a directory may be of any type but "contacts".

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/ResourceRouter.h"
#include "emulator/domains/Domain.h"
#include "emulator/domains/UserContacts.h"

namespace kel::emulator {

class AddressBooks {
 public:
  explicit AddressBooks(const UserContacts& contacts);

  AddressBooks(const AddressBooks&) = delete;
  AddressBooks& operator=(const AddressBooks&) = delete;

  void install(ResourceRouter& resources);

  /// The books that `userId` sees of the given types (all when empty), as answered.
  std::vector<nlohmann::json> booksFor(std::string_view userId,
                                       const std::vector<std::string>& types = {}) const;
  /// Adds a directory {"id", "name", "type", "contacts"?}, or replaces the one with its id.
  /// Throws std::invalid_argument for a malformed one.
  void addBook(nlohmann::json book);
  bool removeBook(std::string_view id);

  /// The fixture's "directories": a list of books as addBook takes them.
  static void checkFixture(const nlohmann::json& part);
  void loadFixture(const nlohmann::json& part);

 private:
  static void checkBook(const nlohmann::json& book, std::string_view where);
  void store(nlohmann::json book);

  const UserContacts& contacts_;
  mutable std::mutex mutex_;  // guards directories_
  std::vector<nlohmann::json> directories_;
};

}  // namespace kel::emulator
