#pragma once

// Each user's own contacts (the "contacts" address book), changed by their owner:
//
//   POST   userContacts        body: a contact; adds it (409 when the user has one with that id)
//   PUT    userContacts/<id>   body: the contact with that id; replaces it (404 for an unknown id,
//                              400 when the body's "id" is another)
//   DELETE userContacts/<id>   removes it (404 for an unknown id); the body is not read
//
// A change is answered 200 with the JSON text "" as body: the client reads a text body as empty
// data, and takes any other body (even {}) for an error message. The change goes to the owner's
// sockets as the event
//
//   path "/addressbooks/contacts-<user id>", the request's method,
//   body {"addressBookId": "contacts-<user id>", "addressBookType": "contacts", "contact": ...}
//
// (for DELETE the contact as it was). A contact: see checkContact (Domain.h). The client sends
// "userContacts" without a leading slash; the router resolves it against the root.

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/ResourceRouter.h"
#include "emulator/domains/Domain.h"

namespace kel::emulator {

class UserContacts {
 public:
  explicit UserContacts(DomainContext context);

  UserContacts(const UserContacts&) = delete;
  UserContacts& operator=(const UserContacts&) = delete;

  void install(ResourceRouter& resources);

  /// The id of a user's contacts book.
  static std::string bookId(std::string_view userId);

  /// The user's contacts in the order they were added.
  std::vector<nlohmann::json> contactsOf(std::string_view userId) const;
  /// Adds the contact, or replaces the user's contact with its id; no event. Throws
  /// std::invalid_argument for an unknown user or a malformed contact.
  void addContact(std::string_view userId, nlohmann::json contact);

  /// The fixture's "contacts": {"<user id>": [contact, ...], ...}. check throws Refusal; load
  /// adds (or replaces) each listed contact.
  static void checkFixture(const nlohmann::json& part, const UserIds& users);
  void loadFixture(const nlohmann::json& part);

 private:
  Reply change(const ResourceRequest& request);
  void store(const std::string& userId, nlohmann::json contact);

  DomainContext context_;
  mutable std::mutex mutex_;                                                  // guards contacts_
  std::map<std::string, std::vector<nlohmann::json>, std::less<>> contacts_;  // by user id
};

}  // namespace kel::emulator
