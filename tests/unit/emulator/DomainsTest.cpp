// The emulator's domains as a client drives them: each table is one session of requests, each
// step with the answer it gets and exactly the events it pushes.

#include <gtest/gtest.h>

#include "DomainHarness.h"

namespace kel::emulator::test {
namespace {

struct Step {
  std::string user;
  std::string method;
  std::string path;
  json body;
  int status;
  /// What the answer must include (see includes()); null: not looked at.
  json answer;
  std::vector<Pushed> events;
};

void run(DomainHarness& harness, const std::vector<Step>& steps) {
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const auto& step = steps[i];
    SCOPED_TRACE("step " + std::to_string(i) + ": " + step.user + " " + step.method + " " +
                 step.path);
    harness.pushed.clear();
    const auto reply = harness.call(step.user, step.method, step.path, step.body);
    EXPECT_EQ(step.status, reply.status) << reply.body.dump();
    if (!step.answer.is_null()) EXPECT_TRUE(includes(reply.body, step.answer)) << reply.body.dump();
    EXPECT_EQ(step.events, harness.pushed);
  }
}

const json kEmpty = json::object();

json merged(json base, const json& changes) {
  base.update(changes);
  return base;
}

TEST(EmulatorDomains, UserContactsChangeTheOwnersContactsBook) {
  DomainHarness harness;
  harness.domains().addressBooks.addBook(
      {{"id", "staff"},
       {"name", "Staff"},
       {"type", "static"},
       {"contacts", {{{"id", "s1"}, {"name", "Sam"}, {"favorite", false}}}}});
  harness.domains().addressBooks.addBook(
      {{"id", "pb"}, {"name", "Phones"}, {"type", "phonebooks"}});
  const json c1 = {{"id", "c1"}, {"name", "Carol"}, {"favorite", false}};
  const json c1b = {{"id", "c1"},
                    {"name", "Carol C"},
                    {"favorite", true},
                    {"associatedUserId", "carol"},
                    {"phones", {{{"type", "work"}, {"value", "+1"}, {"primary", true}}}},
                    {"emails", {{{"type", "home"}, {"primary", false}}}}};
  auto event = [](std::string method, json contact) {
    return Pushed{"alice",
                  "/addressbooks/contacts-alice",
                  std::move(method),
                  {{"addressBookId", "contacts-alice"},
                   {"addressBookType", "contacts"},
                   {"contact", std::move(contact)}}};
  };
  auto books = [](json list) { return json{{"addressBooks", std::move(list)}}; };
  run(harness,
      {
          // The answer is the JSON text "", which the client reads as the empty body it expects.
          {"alice", "POST", "userContacts", c1, 200, "", {event("POST", c1)}},
          {"alice", "POST", "userContacts", c1, 409, nullptr, {}},
          {"alice", "PUT", "userContacts/c1", c1b, 200, "", {event("PUT", c1b)}},
          {"alice",
           "PUT",
           "userContacts/c2",
           {{"id", "c2"}, {"name", "x"}, {"favorite", false}},
           404,
           nullptr,
           {}},
          {"alice",
           "PUT",
           "userContacts/c1",
           {{"id", "c9"}, {"name", "x"}, {"favorite", false}},
           400,
           nullptr,
           {}},
          {"alice",
           "GET",
           "/addressbooks?contacts=true",
           kEmpty,
           200,
           books({{{"id", "contacts-alice"}, {"type", "contacts"}, {"contacts", {c1b}}}}),
           {}},
          {"bob",
           "GET",
           "/addressbooks?contacts=true",
           kEmpty,
           200,
           books({{{"id", "contacts-bob"}, {"contacts", json::array()}}}),
           {}},
          {"alice",
           "GET",
           "/addressbooks?phonebooks=true&static=true&contacts=false",
           kEmpty,
           200,
           books({{{"id", "staff"},
                   {"name", "Staff"},
                   {"type", "static"},
                   {"contacts", {{{"id", "s1"}}}}},
                  {{"id", "pb"}, {"type", "phonebooks"}, {"contacts", json::array()}}}),
           {}},
          {"alice", "GET", "/addressbooks?static=false", kEmpty, 200, books(json::array()), {}},
          {"alice",
           "GET",
           "/addressbooks",
           kEmpty,
           200,
           books({{{"id", "contacts-alice"}}, {{"id", "staff"}}, {{"id", "pb"}}}),
           {}},
          {"alice", "DELETE", "userContacts/c1", kEmpty, 200, "", {event("DELETE", c1b)}},
          {"alice", "DELETE", "userContacts/c1", kEmpty, 404, nullptr, {}},
          {"alice",
           "GET",
           "/addressbooks?contacts=true",
           kEmpty,
           200,
           books({{{"contacts", json::array()}}}),
           {}},
      });
}

TEST(EmulatorDomains, PresenceGoesToTheSocketsSubscribedToIt) {
  DomainHarness harness;
  const json offline = {{"address", "kel-user:alice"}, {"online", false},
                        {"activity", "offline"},       {"username", "alice"},
                        {"domain", "emulator.kel"},    {"role", "user"},
                        {"displayName", "alice"},      {"avatar", nullptr}};
  const json changes = {{"online", true},     {"activity", "busy"}, {"avatar", "AAA"},
                        {"note", "n"},        {"mood", "calm"},     {"displayName", "Alice"},
                        {"ignored", "member"}};
  json busy = merged(offline, changes);
  busy.erase("ignored");
  json plain = busy;
  plain.erase("avatar");
  auto toSubscribers = [](const json& record) {
    return std::vector<Pushed>{{"#2", "/presence/kel-user:alice", "PUT", record},
                               {"#3", "/presence/kel-user:alice", "PUT", record}};
  };
  run(harness, {
                   {"bob", "POST", "/presence", {{"address", "kel-user:alice"}}, 200, offline, {}},
                   {"carol",
                    "POST",
                    "/batch/presence",
                    {"alice@emulator.kel", "nobody", "bob"},
                    200,
                    {{{"address", "kel-user:alice"}}, {{"address", "kel-user:bob"}}},
                    {}},
                   {"bob", "GET", "/presence/kel-user:nobody", kEmpty, 404, nullptr, {}},
                   {"alice", "PUT", "/presence/alice", changes, 200, busy, toSubscribers(busy)},
                   {"bob",
                    "GET",
                    "/presence/kel-user:alice?withoutAvatar=true",
                    kEmpty,
                    200,
                    {{"avatar", nullptr}, {"note", "n"}},
                    {}},
                   {"bob",
                    "GET",
                    "/presence/alice@emulator.kel?withoutAvatar=false",
                    kEmpty,
                    200,
                    {{"avatar", "AAA"}},
                    {}},
                   {"bob", "PUT", "/presence/alice", {{"note", "mine"}}, 403, nullptr, {}},
                   // null clears: the avatar goes, the display name is the alias again.
                   {"alice",
                    "PUT",
                    "/presence/kel-user:alice",
                    {{"avatar", nullptr}, {"displayName", nullptr}},
                    200,
                    {{"avatar", nullptr}, {"displayName", "alice"}, {"note", "n"}},
                    toSubscribers(merged(plain, {{"displayName", "alice"}}))},
               });

  // A closed socket's subscription is forgotten at the next change it misses.
  harness.closedSockets = {3};
  harness.call("alice", "PUT", "/presence/alice", {{"note", "a"}});
  EXPECT_EQ((std::set<SocketId>{2}), harness.domains().presences.subscribers("alice"));
}

TEST(EmulatorDomains, GroupsAreChangedByTheirOwnerAndTellEveryoneConcerned) {
  DomainHarness harness;
  auto group = [&](std::string id, std::vector<std::string> participants,
                   json strategy = {{"type", "simultaneous"}}) {
    return json{{"groupId", id},
                {"chatId", "chat-" + id},
                {"name", id == "g1" ? "Support" : "Two"},
                {"participants", participants},
                {"owner", harness.user("alice")},
                {"ringingStrategy", std::move(strategy)}};
  };
  auto put = [](std::string to, json body) {
    return Pushed{std::move(to), "/usersGroup", "PUT", std::move(body)};
  };
  auto post = [](std::string to, json body) {
    return Pushed{std::move(to), "/usersGroup", "POST", std::move(body)};
  };
  auto gone = [](std::string to, std::string id) {
    return Pushed{std::move(to), "/usersGroup/participant", "DELETE", {{"groupId", id}}};
  };
  const json sequential = {{"type", "sequential"}, {"properties", {{"delay", 10}, {"steps", 2}}}};
  const json bob = {{"targetUserId", "bob"}};
  const json carol = {{"targetUserId", "carol"}};
  run(harness,
      {
          {"alice",
           "POST",
           "/usersGroup",
           {{"name", "Support"}, {"groupId", "g1"}},
           200,
           group("g1", {}),
           {post("alice", group("g1", {}))}},
          {"alice",
           "POST",
           "/usersGroup",
           {{"name", "Again"}, {"groupId", "g1"}},
           409,
           nullptr,
           {}},
          {"bob", "POST", "/usersGroup/g1/participants", carol, 403, nullptr, {}},
          {"alice",
           "POST",
           "/usersGroup/g1/participants",
           bob,
           200,
           kEmpty,
           {post("bob", group("g1", {"bob"})), put("alice", group("g1", {"bob"}))}},
          {"alice",
           "POST",
           "/usersGroup/g1/participants",
           carol,
           200,
           kEmpty,
           {post("carol", group("g1", {"bob", "carol"})),
            put("alice", group("g1", {"bob", "carol"})),
            put("bob", group("g1", {"bob", "carol"}))}},
          {"alice", "POST", "/usersGroup/g1/participants", bob, 409, nullptr, {}},
          {"alice",
           "POST",
           "/usersGroup/g1/participants",
           {{"targetUserId", "zed"}},
           404,
           nullptr,
           {}},
          {"carol", "HEAD", "/usersGroup/g1/participants/bob", json::array(), 200, nullptr, {}},
          {"carol", "HEAD", "/usersGroup/g1/participants/alice", json::array(), 404, nullptr, {}},
          {"carol", "HEAD", "/usersGroup/g9/participants/bob", json::array(), 404, nullptr, {}},
          {"alice",
           "PUT",
           "/usersGroup/g1/participants",
           {{"participants", {"carol", "bob"}}},
           200,
           kEmpty,
           {put("alice", group("g1", {"carol", "bob"})),
            put("carol", group("g1", {"carol", "bob"})),
            put("bob", group("g1", {"carol", "bob"}))}},
          {"alice",
           "PUT",
           "/usersGroup/g1",
           {{"ringingStrategy", sequential}},
           200,
           kEmpty,
           {put("alice", group("g1", {"carol", "bob"}, sequential)),
            put("carol", group("g1", {"carol", "bob"}, sequential)),
            put("bob", group("g1", {"carol", "bob"}, sequential))}},
          {"bob",
           "GET",
           "/usersGroup?participating=true",
           json::array(),
           200,
           {{{"groupId", "g1"}}},
           {}},
          {"bob", "GET", "/usersGroup?participating=false", json::array(), 200, json::array(), {}},
          {"alice",
           "GET",
           "/usersGroup?participating=false",
           json::array(),
           200,
           {{{"groupId", "g1"}}},
           {}},
          {"alice", "GET", "/usersGroup?participating=true", json::array(), 200, json::array(), {}},
          {"carol",
           "GET",
           "/usersGroup/g1",
           json::array(),
           200,
           group("g1", {"carol", "bob"}, sequential),
           {}},
          // The client's path for leaving has two slashes.
          {"bob",
           "DELETE",
           "/usersGroup/g1//leave",
           json::array(),
           200,
           kEmpty,
           {gone("bob", "g1"), put("alice", group("g1", {"carol"}, sequential)),
            put("carol", group("g1", {"carol"}, sequential))}},
          {"bob", "DELETE", "/usersGroup/g1//leave", json::array(), 404, nullptr, {}},
          {"alice",
           "DELETE",
           "/usersGroup/g1/participants",
           carol,
           200,
           kEmpty,
           {gone("carol", "g1"), put("alice", group("g1", {}, sequential))}},
          // Without an id the group gets the next free one.
          {"alice",
           "POST",
           "/usersGroup",
           {{"name", "Two"}},
           200,
           {{"groupId", "group-1"}},
           {post("alice", group("group-1", {}))}},
          {"alice",
           "POST",
           "/usersGroup/group-1/participants",
           bob,
           200,
           kEmpty,
           {post("bob", group("group-1", {"bob"})), put("alice", group("group-1", {"bob"}))}},
          {"alice",
           "POST",
           "/usersGroup/group-1/participants",
           carol,
           200,
           nullptr,
           {post("carol", group("group-1", {"bob", "carol"})),
            put("alice", group("group-1", {"bob", "carol"})),
            put("bob", group("group-1", {"bob", "carol"}))}},
          {"alice",
           "DELETE",
           "/usersGroup/group-1/participants",
           json::array(),
           200,
           kEmpty,
           {gone("bob", "group-1"), gone("carol", "group-1"), put("alice", group("group-1", {}))}},
          {"alice",
           "POST",
           "/usersGroup/g1/participants",
           bob,
           200,
           nullptr,
           {post("bob", group("g1", {"bob"}, sequential)),
            put("alice", group("g1", {"bob"}, sequential))}},
          {"alice",
           "POST",
           "/usersGroup/group-1/participants",
           bob,
           200,
           nullptr,
           {post("bob", group("group-1", {"bob"})), put("alice", group("group-1", {"bob"}))}},
          {"bob",
           "DELETE",
           "/usersGroups/participations",
           json::array(),
           200,
           kEmpty,
           {gone("bob", "g1"), put("alice", group("g1", {}, sequential)), gone("bob", "group-1"),
            put("alice", group("group-1", {}))}},
          {"alice",
           "POST",
           "/usersGroup/g1/participants",
           carol,
           200,
           nullptr,
           {post("carol", group("g1", {"carol"}, sequential)),
            put("alice", group("g1", {"carol"}, sequential))}},
          {"bob", "DELETE", "/usersGroup/g1", json::array(), 403, nullptr, {}},
          // Only string values: the client drops a deletion whose body holds anything else.
          {"alice",
           "DELETE",
           "/usersGroup/g1",
           json::array(),
           200,
           kEmpty,
           {{"alice", "/usersGroup", "DELETE", {{"groupId", "g1"}}},
            {"carol", "/usersGroup", "DELETE", {{"groupId", "g1"}}}}},
          {"carol", "GET", "/usersGroup/g1", json::array(), 404, nullptr, {}},
      });
}

// Every refused request is answered with its reason and leaves everything as it was.
TEST(EmulatorDomains, RefusedRequestsChangeNothingAndPushNothing) {
  DomainHarness harness;
  const json contact = {{"id", "c1"}, {"name", "Carol"}, {"favorite", false}};
  ASSERT_EQ(200, harness.call("alice", "POST", "userContacts", contact).status);
  ASSERT_EQ(200, harness.call("bob", "POST", "/presence", {{"address", "alice"}}).status);
  ASSERT_EQ(
      200, harness.call("alice", "POST", "/usersGroup", {{"name", "G"}, {"groupId", "g1"}}).status);
  ASSERT_EQ(200,
            harness.call("alice", "POST", "/usersGroup/g1/participants", {{"targetUserId", "bob"}})
                .status);
  auto contactWith = [&](const json& changes) { return merged(contact, changes); };
  const json strategy = {{"type", "sequential"}, {"properties", {{"delay", 1}, {"steps", 2}}}};

  struct Refused {
    std::string user;
    std::string method;
    std::string path;
    json body;
    int status;
  };
  const std::vector<Refused> refused{
      {"alice", "POST", "userContacts", {{"name", "x"}, {"favorite", false}}, 400},
      {"alice", "POST", "userContacts", contactWith({{"id", "c2"}, {"favorite", "yes"}}), 400},
      {"alice", "POST", "userContacts", contactWith({{"id", "a/b"}}), 400},
      {"alice", "POST", "userContacts", json::array(), 400},
      {"alice", "POST", "userContacts",
       contactWith({{"id", "c2"}, {"phones", {{{"type", "w"}, {"primary", true}}}}}), 400},
      {"alice", "POST", "userContacts",
       contactWith({{"id", "c2"}, {"emails", {{{"type", "w"}, {"value", 3}, {"primary", true}}}}}),
       400},
      {"alice", "PUT", "userContacts/c1", contactWith({{"name", 5}}), 400},
      {"alice", "DELETE", "userContacts/nope", json::object(), 404},
      {"alice", "PUT", "/presence/alice", {{"online", "yes"}}, 400},
      {"alice", "PUT", "/presence/alice", {{"online", true}, {"avatar", 5}}, 400},
      {"alice", "PUT", "/presence/alice", json::array(), 400},
      {"alice", "PUT", "/presence/bob", {{"note", "x"}}, 403},
      {"alice", "PUT", "/presence/zed", {{"note", "x"}}, 404},
      {"carol", "POST", "/presence", json::object(), 400},
      {"carol", "POST", "/presence", {{"address", 5}}, 400},
      {"carol", "POST", "/presence", {{"address", "zed"}}, 404},
      {"carol", "POST", "/batch/presence", {{"address", "alice"}}, 400},
      {"carol", "POST", "/batch/presence", {"alice", 5}, 400},
      {"carol", "GET", "/presence/alice?withoutAvatar=maybe", json::object(), 400},
      {"alice", "POST", "/usersGroup", json::object(), 400},
      {"alice", "POST", "/usersGroup", {{"name", 5}}, 400},
      {"alice", "POST", "/usersGroup", {{"name", "x"}, {"groupId", ""}}, 400},
      {"alice", "PUT", "/usersGroup/g1", json::object(), 400},
      {"alice", "PUT", "/usersGroup/g1", {{"ringingStrategy", {{"type", "sequential"}}}}, 400},
      {"alice",
       "PUT",
       "/usersGroup/g1",
       {{"ringingStrategy", merged(strategy, {{"properties", {{"delay", "1"}, {"steps", 2}}}})}},
       400},
      {"alice", "PUT", "/usersGroup/g1", {{"ringingStrategy", {{"type", "loud"}}}}, 400},
      {"bob", "PUT", "/usersGroup/g1", {{"ringingStrategy", strategy}}, 403},
      {"alice", "PUT", "/usersGroup/g9", {{"ringingStrategy", strategy}}, 404},
      {"alice", "POST", "/usersGroup/g1/participants", json::object(), 400},
      {"alice", "POST", "/usersGroup/g1/participants", {{"targetUserId", 7}}, 400},
      {"alice", "DELETE", "/usersGroup/g1/participants", {{"targetUserId", 7}}, 400},
      {"alice", "DELETE", "/usersGroup/g1/participants", "everyone", 400},
      {"alice", "DELETE", "/usersGroup/g1/participants", {{"targetUserId", "carol"}}, 404},
      {"bob", "DELETE", "/usersGroup/g1/participants", json::array(), 403},
      {"alice", "PUT", "/usersGroup/g1/participants", {{"participants", {"bob", "bob"}}}, 400},
      {"alice", "PUT", "/usersGroup/g1/participants", {{"participants", {"carol"}}}, 400},
      {"alice", "PUT", "/usersGroup/g1/participants", {{"participants", "bob"}}, 400},
      {"alice", "GET", "/usersGroup?participating=maybe", json::array(), 400},
      {"alice", "GET", "/usersGroup/g1/extra", json::array(), 404},
      {"bob", "DELETE", "/usersGroup/g1", json::array(), 403},
      {"carol", "DELETE", "/usersGroup/g1//leave", json::array(), 404},
      {"alice", "GET", "/addressbooks?contacts=yes", json::array(), 400},
      {"alice", "GET", "/addressbooks?friends=true", json::array(), 400},
  };
  const auto before = harness.state();
  harness.pushed.clear();
  for (const auto& [user, method, path, body, status] : refused) {
    SCOPED_TRACE(user + " " + method + " " + path + " " + body.dump());
    const auto reply = harness.call(user, method, path, body);
    EXPECT_EQ(status, reply.status);
    EXPECT_TRUE(reply.body.contains("message")) << reply.body.dump();
    EXPECT_EQ(before, harness.state());
    EXPECT_TRUE(harness.pushed.empty());
  }
}

}  // namespace
}  // namespace kel::emulator::test
