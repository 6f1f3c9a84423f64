#include "ServerClient/AddressBooks/Model/AddressBookDTO.h"

#include <stdexcept>
#include <utility>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/RawValues.h"
#include "ServerClient/Utils/detail/JsonFields.h"

namespace kel {

namespace {

constexpr RawValues<AddressBookType, 8> kTypeTexts{{"contacts", "static", "domain", "phonebooks",
                                                    "groups", "azureOrgContacts", "azureOrgUsers",
                                                    "azurePersonalContacts"}};

std::optional<AddressBookType> readType(const nlohmann::json& json, std::string_view key) {
  const auto text = detail::readOptionalText(json, key);
  if (!text) return std::nullopt;
  auto type = addressBookType(*text);
  if (!type) throw std::invalid_argument("unknown address book type \"" + *text + "\"");
  return type;
}

}  // namespace

std::string_view rawValue(AddressBookType type) noexcept {
  return kTypeTexts.text(type);
}

std::optional<AddressBookType> addressBookType(std::string_view text) noexcept {
  return kTypeTexts.find(text);
}

void from_json(const nlohmann::json& json, AddressBookDTO& book) {
  AddressBookDTO decoded;
  decoded.id = detail::readOptionalText(json, "id");
  decoded.name = detail::readOptionalText(json, "name");
  decoded.type = readType(json, "type");
  decoded.contacts = detail::readOptional<std::vector<Contact>>(json, "contacts");
  book = std::move(decoded);
}

void to_json(nlohmann::json& json, const AddressBookDTO& book) {
  json = nlohmann::json::object();
  if (book.id) json["id"] = *book.id;
  if (book.name) json["name"] = *book.name;
  if (book.type) json["type"] = rawValue(*book.type);
  if (book.contacts) json["contacts"] = *book.contacts;
}

void from_json(const nlohmann::json& json, AddressBookSocketDTO& event) {
  AddressBookSocketDTO decoded;
  decoded.id = detail::readOptionalText(json, "addressBookId");
  decoded.type = readType(json, "addressBookType");
  decoded.contact = detail::readOptional<Contact>(json, "contact");
  event = std::move(decoded);
}

void to_json(nlohmann::json& json, const AddressBookSocketDTO& event) {
  json = nlohmann::json::object();
  if (event.id) json["addressBookId"] = *event.id;
  if (event.type) json["addressBookType"] = rawValue(*event.type);
  if (event.contact) json["contact"] = *event.contact;
}

}  // namespace kel
