// `kel contacts`: the signed-in user's own contacts.

#include <nlohmann/json.hpp>

#include "ServerClient/Contact/Service/UserContactsService.h"
#include "cli/CommandLine.h"
#include "cli/Output.h"
#include "cli/Runner.h"

namespace kel::cli {

namespace {

struct Entry {
  std::string type;
  std::optional<std::string> value;
  bool primary = false;
};

/// "TYPE:VALUE[:primary]": the type runs to the first ':', a trailing ":primary" marks the
/// primary entry, and the value is what lies between (it may hold ':' itself, as "sip:ann@x").
Entry entryFrom(std::string_view flag, std::string_view text, bool valueRequired) {
  const auto original = text;
  Entry entry;
  constexpr std::string_view kPrimary = ":primary";
  if (text.ends_with(kPrimary)) {
    entry.primary = true;
    text.remove_suffix(kPrimary.size());
  }
  const auto colon = text.find(':');
  entry.type = text.substr(0, colon);
  if (colon != std::string_view::npos && colon + 1 < text.size()) {
    entry.value = std::string(text.substr(colon + 1));
  }
  if (entry.type.empty() || (valueRequired && !entry.value)) {
    throw UsageError{std::string(flag) + ": expected " +
                     (valueRequired ? "TYPE:VALUE[:primary]" : "TYPE[:VALUE][:primary]") +
                     ", got \"" + std::string(original) + "\""};
  }
  return entry;
}

Contact contactFrom(const Arguments& arguments) {
  Contact contact;
  contact.id = arguments.value("--contact-id").value_or("");
  contact.name = arguments.value("--name").value_or("");
  if (arguments.has("--phone")) {
    contact.phones.emplace();
    for (const auto& text : arguments.values("--phone")) {
      auto entry = entryFrom("--phone", text, true);
      contact.phones->push_back({entry.type, *entry.value, entry.primary});
    }
  }
  if (arguments.has("--email")) {
    contact.emails.emplace();
    for (const auto& text : arguments.values("--email")) {
      auto entry = entryFrom("--email", text, false);
      contact.emails->push_back({entry.type, entry.value, entry.primary});
    }
  }
  contact.associatedUserId = arguments.value("--associated-user");
  contact.favorite = arguments.has("--favorite");
  if (contact.id.find('/') != std::string::npos) {
    throw UsageError{"--contact-id: an id cannot hold \"/\" (it goes into the request's path)"};
  }
  return contact;
}

void checkContact(const Arguments& arguments) {
  contactFrom(arguments);
}

nlohmann::json addOrUpdate(Runner& runner, const Arguments& arguments, bool add) {
  const auto contact = contactFrom(arguments);
  runner.restore();
  const auto service = runner.server().userContacts();
  runner.await(add ? "add contact" : "update contact",
               add ? service->add(contact) : service->update(contact));
  runner.human(std::string(add ? "added " : "updated ") + contactText(contact));
  return {{"contact", contact}};
}

nlohmann::json add(Runner& runner, const Arguments& arguments) {
  return addOrUpdate(runner, arguments, true);
}

nlohmann::json update(Runner& runner, const Arguments& arguments) {
  return addOrUpdate(runner, arguments, false);
}

nlohmann::json remove(Runner& runner, const Arguments& arguments) {
  Contact contact;
  contact.id = *arguments.value("--contact-id");
  runner.restore();
  runner.await("delete contact", runner.server().userContacts()->deleteContact(contact));
  runner.human("deleted contact " + contact.id);
  return {{"contactId", contact.id}};
}

const std::vector<Flag> kContactFlags = {
    {"--contact-id", "ID", true},
    {"--name", "NAME", true},
    {"--phone", "TYPE:VALUE[:primary]", false, true},
    {"--email", "TYPE[:VALUE][:primary]", false, true},
    {"--associated-user", "USER"},
    {"--favorite", ""},
};

}  // namespace

const CommandGroup& contactsCommands() {
  static const CommandGroup group{
      "Your contacts",
      {
          {.words = {"contacts", "add"},
           .flags = kContactFlags,
           .summary = "add a contact (USER: the server user it stands for)",
           .check = checkContact,
           .run = add},
          {.words = {"contacts", "update"},
           .flags = kContactFlags,
           .summary = "replace the contact with that id by this one",
           .check = checkContact,
           .run = update},
          {.words = {"contacts", "delete"},
           .flags = {{"--contact-id", "ID", true}},
           .summary = "delete the contact with that id",
           .check = checkContact,
           .run = remove},
      }};
  return group;
}

}  // namespace kel::cli
