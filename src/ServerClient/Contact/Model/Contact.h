#pragma once

// A personal contact, as the user's own contacts and every address book carry it:
//
//   {"id": "c1", "name": "Ann", "phones": [{"type": "work", "value": "+1", "primary": true}],
//    "emails": [{"type": "home", "value": "ann@example.org", "primary": false}],
//    "associatedUserId": "u1", "favorite": false}
//
// "id", "name" and "favorite" are required, as are a phone's three keys and an e-mail's "type"
// and "primary". Encoding writes the keys in the order above and leaves absent optionals out.

#include <optional>
#include <string>
#include <vector>

#include <boost/describe/class.hpp>
#include <nlohmann/json_fwd.hpp>

namespace kel {

struct Contact {
  struct Phone {
    std::string type{};
    std::string value{};
    bool primary = false;
    bool operator==(const Phone&) const = default;
  };
  struct Email {
    std::string type{};
    std::optional<std::string> value{};
    bool primary = false;
    bool operator==(const Email&) const = default;
  };

  std::string id{};
  std::string name{};
  std::optional<std::vector<Phone>> phones{};
  std::optional<std::vector<Email>> emails{};
  /// The server user this contact stands for.
  std::optional<std::string> associatedUserId{};
  bool favorite = false;

  bool operator==(const Contact&) const = default;
};
BOOST_DESCRIBE_STRUCT(Contact::Phone, (), (type, value, primary))
BOOST_DESCRIBE_STRUCT(Contact::Email, (), (type, value, primary))
BOOST_DESCRIBE_STRUCT(Contact, (), (id, name, phones, emails, associatedUserId, favorite))

void from_json(const nlohmann::json& json, Contact::Phone& phone);
void from_json(const nlohmann::json& json, Contact::Email& email);
void from_json(const nlohmann::json& json, Contact& contact);
void to_json(nlohmann::ordered_json& json, const Contact::Phone& phone);
void to_json(nlohmann::ordered_json& json, const Contact::Email& email);
void to_json(nlohmann::ordered_json& json, const Contact& contact);
void to_json(nlohmann::json& json, const Contact& contact);

}  // namespace kel
