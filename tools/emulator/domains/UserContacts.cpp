#include "emulator/domains/UserContacts.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace kel::emulator {

using nlohmann::json;

namespace {

std::vector<json>::iterator findContact(std::vector<json>& contacts, std::string_view id) {
  return std::find_if(contacts.begin(), contacts.end(), [&](const json& contact) {
    return contact.at("id").get_ref<const std::string&>() == id;
  });
}

}  // namespace

UserContacts::UserContacts(DomainContext context) : context_(std::move(context)) {}

std::string UserContacts::bookId(std::string_view userId) {
  return "contacts-" + std::string(userId);
}

void UserContacts::install(ResourceRouter& resources) {
  auto handler = refusing([this](const ResourceRequest& r) { return change(r); });
  resources.route("POST", "/userContacts", handler);
  resources.route("PUT", "/userContacts/:id", handler);
  resources.route("DELETE", "/userContacts/:id", handler);
}

Reply UserContacts::change(const ResourceRequest& request) {
  requireExactPath(request);
  const auto id = request.param("id");
  if (request.method != "DELETE") {
    checkContact(request.body, "");
    if (id && request.body.at("id").get_ref<const std::string&>() != *id) {
      throw Refusal(400, "\"id\" must be the contact's id in the path, " + *id);
    }
  }
  std::lock_guard lock(mutex_);
  auto& contacts = contacts_[request.userId];
  json changed;
  if (request.method == "POST") {
    if (findContact(contacts, request.body.at("id").get<std::string>()) != contacts.end()) {
      throw Refusal(409, "there is a contact with id " + request.body.at("id").get<std::string>());
    }
    changed = contacts.emplace_back(request.body);
  } else {
    auto found = findContact(contacts, *id);
    if (found == contacts.end()) throw Refusal(404, "no contact with id " + *id);
    if (request.method == "PUT") {
      changed = *found = request.body;
    } else {
      changed = std::move(*found);
      contacts.erase(found);
    }
  }
  const auto book = bookId(request.userId);
  context_.push(Recipients::user(request.userId), "/addressbooks/" + book, request.method,
                {{"addressBookId", book}, {"addressBookType", "contacts"}, {"contact", changed}});
  return Reply::ok("");
}

std::vector<json> UserContacts::contactsOf(std::string_view userId) const {
  std::lock_guard lock(mutex_);
  auto found = contacts_.find(userId);
  return found == contacts_.end() ? std::vector<json>{} : found->second;
}

void UserContacts::store(const std::string& userId, json contact) {
  std::lock_guard lock(mutex_);
  auto& contacts = contacts_[userId];
  auto found = findContact(contacts, contact.at("id").get<std::string>());
  if (found == contacts.end()) {
    contacts.push_back(std::move(contact));
  } else {
    *found = std::move(contact);
  }
}

void UserContacts::addContact(std::string_view userId, json contact) {
  if (!context_.knows(userId)) {
    throw std::invalid_argument("no user \"" + std::string(userId) + "\"");
  }
  try {
    checkContact(contact, "");
  } catch (const Refusal& refusal) {
    throw std::invalid_argument(refusal.what());
  }
  store(std::string(userId), std::move(contact));
}

void UserContacts::checkFixture(const json& part, const UserIds& users) {
  if (!part.is_object()) throw Refusal(400, "\"contacts\" must be an object of lists by user id");
  for (const auto& [userId, contacts] : part.items()) {
    const std::string where = "contacts." + userId;
    if (!users.contains(userId))
      throw Refusal(400, "\"" + where + "\": no user \"" + userId + "\"");
    if (!contacts.is_array()) throw Refusal(400, "\"" + where + "\" must be a list");
    UserIds ids;
    for (std::size_t i = 0; i < contacts.size(); ++i) {
      const auto entry = where + "[" + std::to_string(i) + "].";
      checkContact(contacts[i], entry);
      if (!ids.insert(contacts[i].at("id").get<std::string>()).second) {
        throw Refusal(400, memberName(entry, "id") + " is not unique");
      }
    }
  }
}

void UserContacts::loadFixture(const json& part) {
  for (const auto& [userId, contacts] : part.items()) {
    for (const auto& contact : contacts) store(userId, contact);
  }
}

}  // namespace kel::emulator
