// The emulator's domains as clients drive them: each table is one session of requests, each step
// with the answer it gets and exactly the events it pushes. The library's integration tests follow
// the usual paths through one other session; these see every recipient and every refusal.

#include <gtest/gtest.h>

#include <sstream>

#include "DomainHarness.h"

namespace kel::emulator::test {
namespace {

/// "user METHOD path", as the user's socket sends it.
Reply ask(DomainHarness& harness, const std::string& request, const json& body) {
  std::istringstream words(request);
  std::string user, method, path;
  words >> user >> method >> path;
  return harness.call(user, method, path, body);
}

struct Step {
  std::string request;
  json body;
  int status;
  /// What the answer must include (see includes()); null: not looked at.
  json answer;
  /// The summaries of the events pushed, "; "-separated.
  std::string events;
};

void run(DomainHarness& harness, const std::vector<Step>& steps) {
  for (const auto& step : steps) {
    SCOPED_TRACE(step.request + " " + step.body.dump());
    harness.pushed.clear();
    const auto reply = ask(harness, step.request, step.body);
    EXPECT_EQ(step.status, reply.status) << reply.body.dump();
    if (!step.answer.is_null()) {
      EXPECT_TRUE(includes(reply.body, step.answer)) << reply.body.dump();
    }
    std::string events;
    for (const auto& event : harness.pushed) events += (events.empty() ? "" : "; ") + event;
    EXPECT_EQ(step.events, events);
  }
}

const json kNone = json::array();  // what the client sends where it sends no body

json contact(const std::string& id, const std::string& name, json more = json::object()) {
  more.update({{"id", id}, {"name", name}, {"favorite", false}}, true);
  return more;
}

TEST(EmulatorDomains, UserContactsFillTheirOwnersBookBesideTheDirectories) {
  DomainHarness harness;
  harness.domains.addressBooks.addBook(
      {{"id", "staff"}, {"name", "Staff"}, {"type", "static"}, {"contacts", {contact("s1", "S")}}});
  harness.domains.addressBooks.addBook({{"id", "pb"}, {"name", "P"}, {"type", "phonebooks"}});
  const auto full = contact("c1", "Carol C",
                            {{"associatedUserId", "carol"},
                             {"phones", {{{"type", "work"}, {"value", "+1"}, {"primary", true}}}},
                             {"emails", {{{"type", "home"}, {"primary", false}}}}});
  const auto books = [](json list) { return json{{"addressBooks", std::move(list)}}; };
  const std::string book = " /addressbooks/contacts-alice ";
  run(harness,
      {
          // The answer is the JSON text "", which the client reads as the empty body it expects.
          {"alice POST userContacts", contact("c1", "C"), 200, "", "alice POST" + book + "c1:C"},
          {"alice PUT userContacts/c1", full, 200, "", "alice PUT" + book + "c1:Carol C"},
          {"alice GET /addressbooks?contacts=true", kNone, 200,
           books({{{"id", "contacts-alice"}, {"type", "contacts"}, {"contacts", {full}}}}), ""},
          {"bob GET /addressbooks?contacts=true", kNone, 200,
           books({{{"id", "contacts-bob"}, {"contacts", kNone}}}), ""},
          {"alice GET /addressbooks?phonebooks=true&static=true&contacts=false", kNone, 200,
           books({{{"id", "staff"}, {"type", "static"}, {"contacts", {{{"id", "s1"}}}}},
                  {{"id", "pb"}, {"type", "phonebooks"}, {"contacts", kNone}}}),
           ""},
          {"alice GET /addressbooks?static=false", kNone, 200, books(kNone), ""},
          {"alice GET /addressbooks", kNone, 200,
           books({{{"id", "contacts-alice"}}, {{"id", "staff"}}, {{"id", "pb"}}}), ""},
      });
}

TEST(EmulatorDomains, PresenceGoesToEverySocketSubscribedToIt) {
  DomainHarness harness;
  const json offline = {{"address", "kel-user:alice"}, {"online", false},
                        {"activity", "offline"},       {"username", "alice"},
                        {"domain", "emulator.kel"},    {"role", "user"},
                        {"displayName", "alice"}};
  const json changes = {{"online", true}, {"activity", "busy"},     {"avatar", "A"},
                        {"note", "n"},    {"displayName", "Alice"}, {"ignored", 1}};
  json busy = offline;
  busy.update(changes);
  busy["ignored"] = nullptr;
  const std::string toSubscribers =
      "#2 PUT /presence/kel-user:alice kel-user:alice; #3 PUT /presence/kel-user:alice "
      "kel-user:alice";
  run(harness, {
                   {"bob POST /presence", {{"address", "kel-user:alice"}}, 200, offline, ""},
                   {"carol POST /batch/presence",
                    {"alice@emulator.kel", "nobody", "bob"},
                    200,
                    {{{"address", "kel-user:alice"}}, {{"address", "kel-user:bob"}}},
                    ""},
                   {"alice PUT /presence/alice", changes, 200, busy, toSubscribers},
                   {"bob GET /presence/kel-user:alice?withoutAvatar=true",
                    kNone,
                    200,
                    {{"avatar", nullptr}, {"note", "n"}},
                    ""},
                   {"bob GET /presence/alice@emulator.kel?withoutAvatar=false",
                    kNone,
                    200,
                    {{"avatar", "A"}},
                    ""},
                   // null restores the default: no avatar, the alias as the display name.
                   {"alice PUT /presence/kel-user:alice",
                    {{"avatar", nullptr}, {"displayName", nullptr}},
                    200,
                    {{"avatar", nullptr}, {"displayName", "alice"}, {"note", "n"}},
                    toSubscribers},
               });

  // A closed socket's subscription is forgotten at the next change it misses.
  harness.closedSockets = {3};
  ask(harness, "alice PUT /presence/alice", {{"note", "a"}});
  EXPECT_EQ((std::set<SocketId>{2}), harness.domains.presences.subscribers("alice"));
}

TEST(EmulatorDomains, GroupsAreChangedByTheirOwnerAndTellEveryoneConcerned) {
  DomainHarness harness;
  const json sequential = {{"type", "sequential"}, {"properties", {{"delay", 10}, {"steps", 2}}}};
  const json bob = {{"targetUserId", "bob"}};
  const json carol = {{"targetUserId", "carol"}};
  const json ok = json::object();
  const auto groups = [](std::vector<std::string> ids) {
    json list = json::array();
    for (const auto& id : ids) list.push_back({{"groupId", id}});
    return list;
  };
  run(harness,
      {
          {"alice POST /usersGroup",
           {{"name", "Support"}, {"groupId", "g1"}},
           200,
           {{"groupId", "g1"},
            {"chatId", "chat-g1"},
            {"name", "Support"},
            {"participants", kNone},
            {"owner", harness.signIn.account("alice")->user},
            {"ringingStrategy", {{"type", "simultaneous"}}}},
           "alice POST /usersGroup g1[]"},
          // Without an id a group gets the next free one.
          {"alice POST /usersGroup",
           {{"name", "Two"}},
           200,
           {{"groupId", "group-1"}},
           "alice POST /usersGroup group-1[]"},
          {"alice POST /usersGroup/g1/participants", bob, 200, ok,
           "bob POST /usersGroup g1[bob]; alice PUT /usersGroup g1[bob]"},
          {"alice POST /usersGroup/g1/participants", carol, 200, ok,
           "carol POST /usersGroup g1[bob carol]; alice PUT /usersGroup g1[bob carol]; "
           "bob PUT /usersGroup g1[bob carol]"},
          {"alice PUT /usersGroup/g1/participants",
           {{"participants", {"carol", "bob"}}},
           200,
           ok,
           "alice PUT /usersGroup g1[carol bob]; carol PUT /usersGroup g1[carol bob]; "
           "bob PUT /usersGroup g1[carol bob]"},
          {"alice PUT /usersGroup/g1",
           {{"ringingStrategy", sequential}},
           200,
           ok,
           "alice PUT /usersGroup g1[carol bob] sequential; "
           "carol PUT /usersGroup g1[carol bob] sequential; "
           "bob PUT /usersGroup g1[carol bob] sequential"},
          {"alice POST /usersGroup/group-1/participants", bob, 200, ok,
           "bob POST /usersGroup group-1[bob]; alice PUT /usersGroup group-1[bob]"},
          {"bob GET /usersGroup?participating=true", kNone, 200, groups({"g1", "group-1"}), ""},
          {"bob GET /usersGroup?participating=false", kNone, 200, kNone, ""},
          {"alice GET /usersGroup?participating=false", kNone, 200, groups({"g1", "group-1"}), ""},
          {"alice GET /usersGroup?participating=true", kNone, 200, kNone, ""},
          // The client's path for leaving has two slashes.
          {"bob DELETE /usersGroup/g1//leave", kNone, 200, ok,
           "bob DELETE /usersGroup/participant {\"groupId\":\"g1\"}; "
           "alice PUT /usersGroup g1[carol] sequential; carol PUT /usersGroup g1[carol] "
           "sequential"},
          {"alice POST /usersGroup/g1/participants", bob, 200, ok,
           "bob POST /usersGroup g1[carol bob] sequential; alice PUT /usersGroup g1[carol bob] "
           "sequential; carol PUT /usersGroup g1[carol bob] sequential"},
          {"alice DELETE /usersGroup/g1/participants", carol, 200, ok,
           "carol DELETE /usersGroup/participant {\"groupId\":\"g1\"}; "
           "alice PUT /usersGroup g1[bob] sequential; bob PUT /usersGroup g1[bob] sequential"},
          {"alice POST /usersGroup/group-1/participants", carol, 200, ok,
           "carol POST /usersGroup group-1[bob carol]; alice PUT /usersGroup group-1[bob carol]; "
           "bob PUT /usersGroup group-1[bob carol]"},
          {"alice DELETE /usersGroup/group-1/participants", kNone, 200, ok,
           "bob DELETE /usersGroup/participant {\"groupId\":\"group-1\"}; "
           "carol DELETE /usersGroup/participant {\"groupId\":\"group-1\"}; "
           "alice PUT /usersGroup group-1[]"},
          {"alice POST /usersGroup/group-1/participants", bob, 200, ok,
           "bob POST /usersGroup group-1[bob]; alice PUT /usersGroup group-1[bob]"},
          {"bob DELETE /usersGroups/participations", kNone, 200, ok,
           "bob DELETE /usersGroup/participant {\"groupId\":\"g1\"}; "
           "alice PUT /usersGroup g1[] sequential; "
           "bob DELETE /usersGroup/participant {\"groupId\":\"group-1\"}; "
           "alice PUT /usersGroup group-1[]"},
          {"alice POST /usersGroup/g1/participants", carol, 200, ok,
           "carol POST /usersGroup g1[carol] sequential; alice PUT /usersGroup g1[carol] "
           "sequential"},
          // Text values only: the client drops a deletion whose body holds anything else.
          {"alice DELETE /usersGroup/g1", kNone, 200, ok,
           "alice DELETE /usersGroup {\"groupId\":\"g1\"}; "
           "carol DELETE /usersGroup {\"groupId\":\"g1\"}"},
          {"carol GET /usersGroup/g1", kNone, 404, nullptr, ""},
      });
}

// Every refused request is answered with its reason and leaves everything as it was.
TEST(EmulatorDomains, RefusedRequestsChangeNothingAndPushNothing) {
  DomainHarness harness;
  const auto c1 = contact("c1", "C");
  ASSERT_EQ(200, ask(harness, "alice POST userContacts", c1).status);
  ASSERT_EQ(200, ask(harness, "bob POST /presence", {{"address", "alice"}}).status);
  ASSERT_EQ(200, ask(harness, "alice POST /usersGroup", {{"name", "G"}, {"groupId", "g1"}}).status);
  ASSERT_EQ(
      200,
      ask(harness, "alice POST /usersGroup/g1/participants", {{"targetUserId", "bob"}}).status);
  const auto bobSession = "/sessions/" + harness.store.createSession("bob").sessionId;
  const json strategy = {{"type", "sequential"}, {"properties", {{"delay", 1}, {"steps", 2}}}};

  struct Refused {
    std::string request;
    json body;
    int status;
  };
  const std::vector<Refused> refused{
      {"alice POST userContacts", c1, 409},
      {"alice POST userContacts", {{"name", "x"}, {"favorite", false}}, 400},
      {"alice POST userContacts", {{"id", "c2"}, {"name", "x"}, {"favorite", "no"}}, 400},
      {"alice POST userContacts", contact("a/b", "x"), 400},
      {"alice POST userContacts",
       contact("c2", "x", {{"phones", {{{"type", "w"}, {"primary", true}}}}}), 400},
      {"alice POST userContacts",
       contact("c2", "x", {{"emails", {{{"type", "w"}, {"value", 3}, {"primary", true}}}}}), 400},
      {"alice PUT userContacts/c1", {{"id", "c1"}, {"name", 5}, {"favorite", false}}, 400},
      {"alice PUT userContacts/c1", contact("c9", "x"), 400},
      {"alice PUT userContacts/c2", contact("c2", "x"), 404},
      {"alice DELETE userContacts/nope", json::object(), 404},
      {"alice PUT /presence/alice", {{"online", true}, {"avatar", 5}}, 400},
      {"alice PUT /presence/alice", kNone, 400},
      {"alice PUT /presence/bob", {{"note", "x"}}, 403},
      {"alice PUT /presence/zed", {{"note", "x"}}, 404},
      {"carol POST /presence", {{"address", 5}}, 400},
      {"carol POST /presence", {{"address", "zed"}}, 404},
      {"carol POST /batch/presence", {"alice", 5}, 400},
      {"carol GET /presence/alice?withoutAvatar=maybe", kNone, 400},
      {"carol GET /presence/kel-user:nobody", kNone, 404},
      {"alice POST /usersGroup", {{"name", 5}}, 400},
      {"alice POST /usersGroup", {{"name", "x"}, {"groupId", ""}}, 400},
      {"alice POST /usersGroup", {{"name", "x"}, {"groupId", "g1"}}, 409},
      {"alice PUT /usersGroup/g1", {{"ringingStrategy", {{"type", "sequential"}}}}, 400},
      {"alice PUT /usersGroup/g1",
       {{"ringingStrategy",
         {{"type", "sequential"}, {"properties", {{"delay", "1"}, {"steps", 2}}}}}},
       400},
      {"alice PUT /usersGroup/g1", {{"ringingStrategy", {{"type", "loud"}}}}, 400},
      {"bob PUT /usersGroup/g1", {{"ringingStrategy", strategy}}, 403},
      {"alice PUT /usersGroup/g9", {{"ringingStrategy", strategy}}, 404},
      {"alice POST /usersGroup/g1/participants", {{"targetUserId", 7}}, 400},
      {"alice POST /usersGroup/g1/participants", {{"targetUserId", "bob"}}, 409},
      {"alice POST /usersGroup/g1/participants", {{"targetUserId", "zed"}}, 404},
      {"bob POST /usersGroup/g1/participants", {{"targetUserId", "carol"}}, 403},
      {"alice DELETE /usersGroup/g1/participants", "everyone", 400},
      {"alice DELETE /usersGroup/g1/participants", {{"targetUserId", "carol"}}, 404},
      {"bob DELETE /usersGroup/g1/participants", kNone, 403},
      {"alice PUT /usersGroup/g1/participants", {{"participants", {"bob", "bob"}}}, 400},
      {"alice PUT /usersGroup/g1/participants", {{"participants", {"carol"}}}, 400},
      {"alice GET /usersGroup?participating=maybe", kNone, 400},
      {"alice GET /usersGroup/g1/extra", kNone, 404},
      {"bob DELETE /usersGroup/g1", kNone, 403},
      {"carol DELETE /usersGroup/g1//leave", kNone, 404},
      {"alice GET /addressbooks?contacts=yes", kNone, 400},
      // Sessions are renewed and ended by their own user only.
      {"alice PUT " + bobSession, kNone, 404},
      {"alice DELETE " + bobSession, kNone, 404},
  };
  const auto before = harness.state();
  harness.pushed.clear();
  for (const auto& [request, body, status] : refused) {
    SCOPED_TRACE(request + " " + body.dump());
    const auto reply = ask(harness, request, body);
    EXPECT_EQ(status, reply.status);
    EXPECT_TRUE(reply.body.contains("message")) << reply.body.dump();
    EXPECT_EQ(before, harness.state());
    EXPECT_TRUE(harness.pushed.empty());
  }
}

}  // namespace
}  // namespace kel::emulator::test
