// `kel addressbooks`: the address books the user can see, and the contact standing for a user.

#include <nlohmann/json.hpp>

#include "ServerClient/AddressBooks/Service/AddressBooksService.h"
#include "cli/CommandLine.h"
#include "cli/Output.h"
#include "cli/Runner.h"

namespace kel::cli {

namespace {

constexpr AddressBookType kAllTypes[] = {
    AddressBookType::contacts,      AddressBookType::static_,
    AddressBookType::domain,        AddressBookType::phonebooks,
    AddressBookType::groups,        AddressBookType::azureOrgContacts,
    AddressBookType::azureOrgUsers, AddressBookType::azurePersonalContacts,
};

/// The --type values; every type when none is given, named one by one in the query, since what
/// a server answers to no type at all is its own choice.
std::vector<std::string> typesFrom(const Arguments& arguments) {
  std::vector<std::string> types = arguments.values("--type");
  for (const auto& type : types) {
    if (!addressBookType(type)) {
      std::string known;
      for (const auto each : kAllTypes)
        known += (known.empty() ? "" : ", ") + std::string(rawValue(each));
      throw UsageError{"--type: unknown address book type \"" + type + "\" (known: " + known + ")"};
    }
  }
  if (types.empty()) {
    for (const auto type : kAllTypes) types.emplace_back(rawValue(type));
  }
  return types;
}

void checkTypes(const Arguments& arguments) {
  typesFrom(arguments);
}

nlohmann::json list(Runner& runner, const Arguments& arguments) {
  const auto types = typesFrom(arguments);
  runner.restore();
  const auto books =
      runner.await("address books", runner.server().addressBooks()->addressBooks(types, false));
  for (const auto& book : books) {
    std::string line = book.id.value_or("(no id)");
    if (book.name) line += " \"" + *book.name + "\"";
    if (book.type) line += " (" + std::string(rawValue(*book.type)) + ")";
    const auto count = book.contacts ? book.contacts->size() : 0;
    runner.human(line + ": " + std::to_string(count) + (count == 1 ? " contact" : " contacts"));
    if (book.contacts) {
      for (const auto& contact : *book.contacts) runner.human("  " + contactText(contact));
    }
  }
  if (books.empty()) runner.human("no address books");
  return {{"addressBooks", books}};
}

nlohmann::json contact(Runner& runner, const Arguments& arguments) {
  const auto types = typesFrom(arguments);
  const auto user = *arguments.value("--user");
  runner.restore();
  const auto found =
      runner.await("contact of " + user, runner.server().addressBooks()->contact(types, user));
  runner.human(found ? contactText(*found) : "no contact stands for " + user);
  return {{"contact", found ? nlohmann::json(*found) : nlohmann::json()}};
}

}  // namespace

const CommandGroup& addressBooksCommands() {
  static const CommandGroup group{
      "Address books",
      {
          {.words = {"addressbooks"},
           .flags = {{"--type", "TYPE", false, true}},
           .summary = "the address books of those types (default every type: contacts, static,\n"
                      "domain, phonebooks, groups, azureOrgContacts, azureOrgUsers,\n"
                      "azurePersonalContacts), with their contacts",
           .check = checkTypes,
           .run = list},
          {.words = {"addressbooks", "contact"},
           .flags = {{"--user", "USER", true}, {"--type", "TYPE", false, true}},
           .summary = "the first contact in those books that stands for the server user USER",
           .check = checkTypes,
           .run = contact},
      }};
  return group;
}

}  // namespace kel::cli
