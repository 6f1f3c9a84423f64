#include "emulator/domains/AddressBooks.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace kel::emulator {

using nlohmann::json;

namespace {

constexpr std::array<std::string_view, 8> kTypes{
    "contacts", "static",        "domain",           "phonebooks",
    "groups",   "azureOrgUsers", "azureOrgContacts", "azurePersonalContacts"};

bool isType(std::string_view type) {
  return std::find(kTypes.begin(), kTypes.end(), type) != kTypes.end();
}

bool wanted(const json& book, const std::vector<std::string>& types) {
  return types.empty() ||
         std::find(types.begin(), types.end(), book.at("type").get<std::string>()) != types.end();
}

}  // namespace

AddressBooks::AddressBooks(const UserContacts& contacts) : contacts_(contacts) {}

void AddressBooks::install(ResourceRouter& resources) {
  resources.route("GET", "/addressbooks", refusing([this](const ResourceRequest& r) {
                    requireExactPath(r);
                    std::vector<std::string> types;
                    for (const auto& [key, value] : r.target.query) {
                      if (!isType(key)) throw Refusal(400, "no address book type " + key);
                      if (value != "true" && value != "false") {
                        throw Refusal(400, "the value of " + key + " must be true or false");
                      }
                      if (value == "true") types.push_back(key);
                    }
                    json books = json::array();
                    // Every key "false" asks for none, which the empty list would not say.
                    if (!types.empty() || r.target.query.empty()) {
                      for (auto& book : booksFor(r.userId, types)) books.push_back(std::move(book));
                    }
                    return Reply::ok({{"addressBooks", std::move(books)}});
                  }));
}

std::vector<json> AddressBooks::booksFor(std::string_view userId,
                                         const std::vector<std::string>& types) const {
  std::vector<json> books;
  json own = {{"id", UserContacts::bookId(userId)},
              {"name", "Contacts"},
              {"type", "contacts"},
              {"contacts", contacts_.contactsOf(userId)}};
  if (wanted(own, types)) books.push_back(std::move(own));
  std::lock_guard lock(mutex_);
  for (const auto& book : directories_) {
    if (wanted(book, types)) books.push_back(book);
  }
  return books;
}

void AddressBooks::checkBook(const json& book, std::string_view where) {
  identifier(book, "id", where);
  text(book, "name", where);
  const auto type = text(book, "type", where);
  if (!isType(type) || type == "contacts") {
    throw Refusal(400, memberName(where, "type") + " must be a directory's type, not " + type);
  }
  if (const auto* contacts = member(book, "contacts", JsonKind::list, where, false)) {
    for (std::size_t i = 0; i < contacts->size(); ++i) {
      checkContact((*contacts)[i], entryWhere(where, "contacts", i));
    }
  }
}

void AddressBooks::store(json book) {
  if (!book.contains("contacts") || book.at("contacts").is_null()) book["contacts"] = json::array();
  std::lock_guard lock(mutex_);
  auto found = std::find_if(directories_.begin(), directories_.end(), [&](const json& existing) {
    return existing.at("id") == book.at("id");
  });
  if (found == directories_.end()) {
    directories_.push_back(std::move(book));
  } else {
    *found = std::move(book);
  }
}

void AddressBooks::addBook(json book) {
  try {
    checkBook(book, "");
  } catch (const Refusal& refusal) {
    throw std::invalid_argument(refusal.what());
  }
  store(std::move(book));
}

bool AddressBooks::removeBook(std::string_view id) {
  std::lock_guard lock(mutex_);
  return std::erase_if(directories_, [&](const json& book) {
           return book.at("id").get_ref<const std::string&>() == id;
         }) > 0;
}

void AddressBooks::checkFixture(const json& part) {
  if (!part.is_array()) throw Refusal(400, "\"directories\" must be a list");
  UserIds ids;
  for (std::size_t i = 0; i < part.size(); ++i) {
    const auto where = entryWhere("", "directories", i);
    checkBook(part[i], where);
    if (!ids.insert(part[i].at("id").get<std::string>()).second) {
      throw Refusal(400, memberName(where, "id") + " is not unique");
    }
  }
}

void AddressBooks::loadFixture(const json& part) {
  for (const auto& book : part) store(book);
}

}  // namespace kel::emulator
