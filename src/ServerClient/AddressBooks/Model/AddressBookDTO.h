#pragma once

// Address books: the lists of contacts a user can see, and the body of a contact event.
//
//   {"id": "b1", "name": "Mine", "type": "contacts", "contacts": [<Contact>, ...]}
//   {"addressBookId": "b1", "addressBookType": "contacts", "contact": <Contact>}
//
// Every key may be absent. A "type" outside AddressBookType fails the decoding of the record
// (and so of the whole answer that holds it).

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>
#include <nlohmann/json_fwd.hpp>

#include "ServerClient/Contact/Model/Contact.h"

namespace kel {

struct AddressBookDTO {
  enum class AddressBookType {
    contacts,
    static_,  // "static"
    domain,
    phonebooks,
    groups,
    azureOrgContacts,
    azureOrgUsers,
    azurePersonalContacts,
  };

  std::optional<std::string> id{};
  std::optional<std::string> name{};
  std::optional<AddressBookType> type{};
  std::optional<std::vector<Contact>> contacts{};

  bool operator==(const AddressBookDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(AddressBookDTO, (), (id, name, type, contacts))

using AddressBookType = AddressBookDTO::AddressBookType;

/// The wire text of a type ("static" for static_).
std::string_view rawValue(AddressBookType type) noexcept;
/// The type of a wire text; nothing for any other text.
std::optional<AddressBookType> addressBookType(std::string_view text) noexcept;

struct AddressBookSocketDTO {
  std::optional<std::string> id{};
  std::optional<AddressBookType> type{};
  std::optional<Contact> contact{};

  bool operator==(const AddressBookSocketDTO&) const = default;
};
BOOST_DESCRIBE_STRUCT(AddressBookSocketDTO, (), (id, type, contact))

void from_json(const nlohmann::json& json, AddressBookDTO& book);
void to_json(nlohmann::json& json, const AddressBookDTO& book);
void from_json(const nlohmann::json& json, AddressBookSocketDTO& event);
void to_json(nlohmann::json& json, const AddressBookSocketDTO& event);

}  // namespace kel
