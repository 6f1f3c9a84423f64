#pragma once

/// @file
/// A personal contact, as the user's own contacts and every address book carry it:
///
/// ```
/// {"id": "c1", "name": "Ann", "phones": [{"type": "work", "value": "+1", "primary": true}],
///  "emails": [{"type": "home", "value": "ann@example.org", "primary": false}],
///  "associatedUserId": "u1", "favorite": false}
/// ```
///
/// "id", "name" and "favorite" are required, as are a phone's three keys and an e-mail's "type"
/// and "primary". Encoding writes the keys in the order above and leaves absent optionals out.

#include <optional>
#include <string>
#include <vector>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

namespace kel {

/// A personal contact (JSON form in Contact.h): what UserContactsService adds, changes and
/// removes, and what address books list. A plain value, safe to copy between threads.
struct Contact {
  /// One phone number of a contact.
  struct Phone {
    std::string type{};    ///< "type": a label such as "work"
    std::string value{};   ///< "value": the number as entered
    bool primary = false;  ///< "primary": the contact's preferred number
    /// Field-by-field equality.
    bool operator==(const Phone&) const = default;
  };
  /// One e-mail address of a contact.
  struct Email {
    std::string type{};                  ///< "type": a label such as "home"
    std::optional<std::string> value{};  ///< "value": the address; may be absent
    bool primary = false;                ///< "primary": the contact's preferred address
    /// Field-by-field equality.
    bool operator==(const Email&) const = default;
  };

  std::string id{};    ///< "id"; update and deleteContact address the contact by it
  std::string name{};  ///< "name", for display
  std::optional<std::vector<Phone>> phones{};  ///< "phones"
  std::optional<std::vector<Email>> emails{};  ///< "emails"
  /// The server user this contact stands for ("associatedUserId"), if any;
  /// AddressBooksService::contact finds contacts by it.
  std::optional<std::string> associatedUserId{};
  bool favorite = false;  ///< "favorite": marked as a favourite by the user

  /// Field-by-field equality.
  bool operator==(const Contact&) const = default;
};
BOOST_DESCRIBE_STRUCT(Contact::Phone, (), (type, value, primary))
BOOST_DESCRIBE_STRUCT(Contact::Email, (), (type, value, primary))
BOOST_DESCRIBE_STRUCT(Contact, (), (id, name, phones, emails, associatedUserId, favorite))

/// Reads a phone; throws (std::invalid_argument or nlohmann's errors) for a missing key or a
/// value of the wrong JSON type, which kel::from reports as GenericError(decoding).
void from_json(const nlohmann::json& json, Contact::Phone& phone);
/// Reads an e-mail address; throws as for a phone.
void from_json(const nlohmann::json& json, Contact::Email& email);
/// Reads a contact; throws as for a phone, also for a phone or e-mail that does not decode.
void from_json(const nlohmann::json& json, Contact& contact);
/// Writes "type", "value", "primary", in that order.
void to_json(nlohmann::ordered_json& json, const Contact::Phone& phone);
/// Writes "type", "value" (when present), "primary", in that order.
void to_json(nlohmann::ordered_json& json, const Contact::Email& email);
/// Writes the keys in the order of the JSON form, absent optionals left out.
void to_json(nlohmann::ordered_json& json, const Contact& contact);
/// The same keys as the ordered form; an nlohmann::json object keeps them sorted by name.
void to_json(nlohmann::json& json, const Contact& contact);

}  // namespace kel
