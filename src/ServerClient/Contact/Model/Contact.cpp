#include "ServerClient/Contact/Model/Contact.h"

#include <nlohmann/json.hpp>

#include "ServerClient/Utils/detail/JsonFields.h"

namespace kel {

using detail::readOptional;
using detail::readRequired;

void from_json(const nlohmann::json& json, Contact::Phone& phone) {
  readRequired(json, "type", phone.type);
  readRequired(json, "value", phone.value);
  readRequired(json, "primary", phone.primary);
}

void from_json(const nlohmann::json& json, Contact::Email& email) {
  readRequired(json, "type", email.type);
  email.value = readOptional<std::string>(json, "value");
  readRequired(json, "primary", email.primary);
}

void from_json(const nlohmann::json& json, Contact& contact) {
  Contact decoded;
  readRequired(json, "id", decoded.id);
  readRequired(json, "name", decoded.name);
  decoded.phones = readOptional<std::vector<Contact::Phone>>(json, "phones");
  decoded.emails = readOptional<std::vector<Contact::Email>>(json, "emails");
  decoded.associatedUserId = readOptional<std::string>(json, "associatedUserId");
  readRequired(json, "favorite", decoded.favorite);
  contact = std::move(decoded);
}

void to_json(nlohmann::ordered_json& json, const Contact::Phone& phone) {
  json = {{"type", phone.type}, {"value", phone.value}, {"primary", phone.primary}};
}

void to_json(nlohmann::ordered_json& json, const Contact::Email& email) {
  json = {{"type", email.type}};
  if (email.value) json["value"] = *email.value;
  json["primary"] = email.primary;
}

void to_json(nlohmann::ordered_json& json, const Contact& contact) {
  json = {{"id", contact.id}, {"name", contact.name}};
  if (contact.phones) json["phones"] = *contact.phones;
  if (contact.emails) json["emails"] = *contact.emails;
  if (contact.associatedUserId) json["associatedUserId"] = *contact.associatedUserId;
  json["favorite"] = contact.favorite;
}

void to_json(nlohmann::json& json, const Contact& contact) {
  json = nlohmann::json(nlohmann::ordered_json(contact));
}

}  // namespace kel
