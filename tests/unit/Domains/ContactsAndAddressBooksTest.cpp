#include <gtest/gtest.h>

#include "ServerClient/AddressBooks/Event/AddressBooksEventHandler.h"
#include "ServerClient/AddressBooks/Service/KelCacheAddressBooksService.h"
#include "ServerClient/Contact/Service/KelUserContactsService.h"
#include "support/LogCapture.h"
#include "support/OperationTable.h"

namespace kel {
namespace {

using namespace testing::tables;
using testing::runDecodingTable;

TEST(ContactRecords, DecodeWhereTheyMayAndEncodeInTheirOrder) {
  runDecodingTable<Contact, nlohmann::ordered_json>({
      {R"({"favorite":true,"name":"Ann","id":"c1"})",
       R"({"id":"c1","name":"Ann","favorite":true})"},
      {R"({"id":"c1","name":"Ann","favorite":false,"associatedUserId":"u1",
           "emails":[{"type":"home","primary":true}],
           "phones":[{"primary":false,"value":"+1","type":"work"}]})",
       R"({"id":"c1","name":"Ann","phones":[{"type":"work","value":"+1","primary":false}],)"
       R"("emails":[{"type":"home","primary":true}],"associatedUserId":"u1","favorite":false})"},
      {R"({"id":"c1","name":"Ann"})", std::nullopt},
      {R"({"id":"c1","name":"Ann","favorite":"yes"})", std::nullopt},
      {R"({"id":"c1","name":"Ann","favorite":true,"phones":[{"type":"work","primary":true}]})",
       std::nullopt},
  });
  runDecodingTable<AddressBookDTO>({
      {R"({})", R"({})"},
      {R"({"id":"b1","type":"static","contacts":[]})",
       R"({"contacts":[],"id":"b1","type":"static"})"},
      {R"({"type":"azurePersonalContacts"})", R"({"type":"azurePersonalContacts"})"},
      {R"({"type":"friends"})", std::nullopt},
      {R"({"contacts":[{"id":"c1"}]})", std::nullopt},
  });
  runDecodingTable<AddressBookSocketDTO>({
      {R"({"addressBookId":"b1","addressBookType":"contacts","contact":{"id":"c","name":"n","favorite":false}})",
       R"({"addressBookId":"b1","addressBookType":"contacts","contact":{"favorite":false,"id":"c","name":"n"}})"},
      {R"({"addressBookType":"nope"})", std::nullopt},
  });
}

const Contact kAnn{.id = "c1", .name = "Ann", .favorite = true};

TEST(UserContactsService, EachOperationWritesItsFrameAndAcceptsOnlyAnEmptyAnswer) {
  const json ann = {{"id", "c1"}, {"name", "Ann"}, {"favorite", true}};
  const auto add = [](auto& s) { return outcome(s.add(kAnn)); };
  testing::runOperationTable<KelUserContactsService>({
      {"add", add, frame("POST", "userContacts", ann), Reply::withBody(""), "unit"},
      {"update", [](auto& s) { return outcome(s.update(kAnn)); },
       frame("PUT", "userContacts/c1", ann), Reply::withBody(""), "unit"},
      {"delete", [](auto& s) { return outcome(s.deleteContact(kAnn)); },
       frame("DELETE", "userContacts/c1", json::object()), Reply::withBody(""), "unit"},
      // Any answer with a body is the server's complaint, even an empty object.
      {"add refused", add, frame("POST", "userContacts", ann), Reply::withBody(json::object()),
       json{{"error", "generic/invalidResponse"}}},
  });
}

json contact(std::string id, std::optional<std::string> user = std::nullopt) {
  json c = {{"id", id}, {"name", id}, {"favorite", false}};
  if (user) c["associatedUserId"] = *user;
  return c;
}

TEST(AddressBooksService, AsksForEachTypeOnceAndFindsTheFirstContactOfAUser) {
  const json books = {
      {"addressBooks",
       {{{"id", "b1"}, {"type", "static"}},
        {{"id", "b2"}, {"type", "contacts"}, {"contacts", {contact("x"), contact("a", "u1")}}},
        {{"id", "b3"}, {"type", "domain"}, {"contacts", {contact("b", "u1")}}}}}};
  const std::vector<std::string> types{"static", "contacts", "static"};
  const auto statics = [](auto& s) { return outcome(s.addressBooks({"static"})); };
  const auto byUser = [](std::string user) {
    return [user](auto& s) { return outcome(s.contact({"contacts"}, user)); };
  };
  const json b1 = {{"id", "b1"}};
  testing::runOperationTable<KelAddressBooksService>({
      {"no types", [](auto& s) { return outcome(s.addressBooks({})); },
       frame("GET", "/addressbooks"), Reply::withBody({{"addressBooks", json::array()}}),
       json::array()},
      {"types", [&](auto& s) { return outcome(s.addressBooks(types)); },
       frame("GET", "/addressbooks?contacts=true&static=true"),
       Reply::withBody({{"addressBooks", {b1}}}), json::array({b1})},
      {"no list", statics, frame("GET", "/addressbooks?static=true"),
       Reply::withBody({{"books", json::array()}}), kUndecodable},
      {"an unknown type fails the answer", statics, frame("GET", "/addressbooks?static=true"),
       Reply::withBody({{"addressBooks", {b1, {{"type", "x"}}}}}), kUndecodable},
      {"contact", byUser("u1"), frame("GET", "/addressbooks?contacts=true"), Reply::withBody(books),
       contact("a", "u1")},
      {"no contact", byUser("u9"), frame("GET", "/addressbooks?contacts=true"),
       Reply::withBody(books), nullptr},
  });
}

AddressBookSocketDTO event(std::optional<std::string> book, std::string contactId,
                           std::string name = "N") {
  return {.id = std::move(book),
          .type = AddressBookType::contacts,
          .contact = Contact{.id = std::move(contactId), .name = std::move(name)}};
}

std::vector<std::string> contactIds(const KelCacheAddressBooksService& service,
                                    const std::string& book) {
  std::vector<std::string> ids;
  const auto books = service.cachedAddressBooks();
  if (auto it = books.find(book); it != books.end() && it->second.contacts) {
    for (const auto& contact : *it->second.contacts) ids.push_back(contact.id + ":" + contact.name);
  }
  return ids;
}

TEST(CacheAddressBooksService, FillsFromTheServerAnswersFromItselfAndFollowsEvents) {
  testing::LogCapture log;
  auto client = std::make_shared<FakeSocketClient>();
  auto service = std::make_shared<KelCacheAddressBooksService>(SocketClientSlot{client});

  // An empty cache sends even when asked for the cache, and keeps what has an id and a type.
  client->queueReply(
      Reply::withBody({{"addressBooks",
                        {{{"id", "b1"}, {"type", "static"}, {"contacts", json::array()}},
                         {{"id", "b2"}},
                         {{"id", "b3"}, {"type", "contacts"}}}}}));
  EXPECT_EQ(3u, outcome(service->addressBooks({"static"}, true)).size());
  EXPECT_EQ(1u, client->requests().size());
  EXPECT_EQ(2u, service->cachedAddressBooks().size());
  EXPECT_EQ(1u, service->cachedAddressBooks().count("b3"));
  EXPECT_TRUE(log.contains("AddressBook cache NOT updated: "));

  // From the cache: only the types asked for, possibly none, without a request.
  EXPECT_EQ(json::array(), outcome(service->addressBooks({"domain"}, true)));
  EXPECT_EQ(1u, outcome(service->addressBooks({"static"}, true)).size());
  EXPECT_EQ(1u, client->requests().size());
  EXPECT_TRUE(log.contains("AddressBooks from cache: "));

  // Events: a new book, an appended contact, a replaced one; a book cached without a contact
  // list stays as it was.
  service->updateCache(event("b9", "c1"));
  service->updateCache(event("b9", "c2"));
  service->updateCache(event("b9", "c1", "Renamed"));
  service->updateCache(event("b3", "c1"));
  service->updateCache(event(std::nullopt, "c1"));
  EXPECT_EQ((std::vector<std::string>{"c1:Renamed", "c2:N"}), contactIds(*service, "b9"));
  EXPECT_TRUE(contactIds(*service, "b3").empty());
  EXPECT_FALSE(service->cachedAddressBooks().at("b3").contacts.has_value());
  EXPECT_EQ(1u, log.count("AddressBookSocket cache NOT updated: "));

  service->deleteCache(event("b9", "c1"));
  service->deleteCache(event("b9", "absent"));
  EXPECT_EQ((std::vector<std::string>{"c2:N"}), contactIds(*service, "b9"));
  EXPECT_EQ(2u, log.count("AddressBookSocket cache deleted: "));

  // The contact of a user comes from the cache once it holds anything.
  auto withUser = event("b9", "c3");
  withUser.contact->associatedUserId = "u1";
  service->updateCache(withUser);
  EXPECT_EQ("c3", outcome(service->contact({"contacts"}, "u1"))["id"]);
  EXPECT_EQ(nullptr, outcome(service->contact({"static"}, "u1")));
  EXPECT_EQ(1u, client->requests().size());
}

}  // namespace
}  // namespace kel
