#pragma once

/// @file
/// Address books: the lists of contacts a user can see, and the body of a contact event.
///
/// ```
/// {"id": "b1", "name": "Mine", "type": "contacts", "contacts": [<Contact>, ...]}
/// {"addressBookId": "b1", "addressBookType": "contacts", "contact": <Contact>}
/// ```
///
/// Every key may be absent. A "type" outside AddressBookType fails the decoding of the record
/// (and so of the whole answer that holds it).

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>
#include <nlohmann/json_fwd.hpp>

#include "ServerClient/Contact/Model/Contact.h"

namespace kel {

/// One address book as the server lists it (first JSON form in AddressBookDTO.h). Values, not
/// handles: copies are independent and safe to pass between threads.
struct AddressBookDTO {
  /// The kind of a book; its wire text is rawValue(AddressBookType).
  enum class AddressBookType {
    contacts,               ///< "contacts": the user's own contacts
    static_,                ///< "static"
    domain,                 ///< "domain"
    phonebooks,             ///< "phonebooks"
    groups,                 ///< "groups"
    azureOrgContacts,       ///< "azureOrgContacts"
    azureOrgUsers,          ///< "azureOrgUsers"
    azurePersonalContacts,  ///< "azurePersonalContacts"
  };

  std::optional<std::string> id{};                 ///< "id"; the cache's key
  std::optional<std::string> name{};               ///< "name", for display
  std::optional<AddressBookType> type{};           ///< "type"
  std::optional<std::vector<Contact>> contacts{};  ///< "contacts", in the server's order

  /// Field-by-field equality.
  bool operator==(const AddressBookDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(AddressBookDTO, (), (id, name, type, contacts))

/// Shorthand for AddressBookDTO::AddressBookType.
using AddressBookType = AddressBookDTO::AddressBookType;

/// The wire text of a type ("static" for static_).
std::string_view rawValue(AddressBookType type) noexcept;
/// The type of a wire text; nothing for any other text.
std::optional<AddressBookType> addressBookType(std::string_view text) noexcept;

/// The body of a contact event (second JSON form in AddressBookDTO.h): which book changed, and
/// the contact added, changed or removed.
struct AddressBookSocketDTO {
  std::optional<std::string> id{};        ///< "addressBookId": the book's id
  std::optional<AddressBookType> type{};  ///< "addressBookType": the book's type
  std::optional<Contact> contact{};  ///< "contact": the contact as it is (or was, for a removal)

  /// Field-by-field equality.
  bool operator==(const AddressBookSocketDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(AddressBookSocketDTO, (), (id, type, contact))

/// Reads a book; throws (std::invalid_argument or nlohmann's errors) for an unknown type or a
/// value of the wrong JSON type, which kel::from reports as GenericError(decoding).
void from_json(const nlohmann::json& json, AddressBookDTO& book);
/// Writes the present values only.
void to_json(nlohmann::json& json, const AddressBookDTO& book);
/// Reads a contact event's body; throws as for a book.
void from_json(const nlohmann::json& json, AddressBookSocketDTO& event);
/// Writes the present values only.
void to_json(nlohmann::json& json, const AddressBookSocketDTO& event);

}  // namespace kel
