// The emulator's domains as a client drives them: each table is one session of requests, each
// step with the answer it gets and exactly the events it pushes.

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

/// The events in short, "; "-separated: "<to> <method> <path> <what>", where <what> is a group's
/// "id[participants]" (and its strategy when not simultaneous), a contact's "id:name", a
/// presence's address, or else the body.
std::string summary(const std::vector<Pushed>& events) {
  std::string text;
  for (const auto& event : events) {
    const auto& body = event.body;
    std::string what;
    if (body.contains("participants")) {
      what = body["groupId"].get<std::string>() + "[";
      for (const auto& user : body["participants"]) what += user.get<std::string>() + " ";
      if (what.ends_with(' ')) what.pop_back();
      what += "]";
      const auto type = body["ringingStrategy"]["type"].get<std::string>();
      if (type != "simultaneous") what += " " + type;
    } else if (body.contains("contact")) {
      what = body["contact"]["id"].get<std::string>() + ":" +
             body["contact"]["name"].get<std::string>();
    } else if (body.contains("address")) {
      what = body["address"].get<std::string>();
    } else {
      what = body.dump();
    }
    if (!text.empty()) text += "; ";
    text += event.to + " " + event.method + " " + event.path + " " + what;
  }
  return text;
}

struct Step {
  std::string request;
  json body;
  int status;
  /// What the answer must include (see includes()); null: not looked at.
  json answer;
  /// summary() of the events pushed.
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
    EXPECT_EQ(step.events, summary(harness.pushed));
  }
}

const json kNone = json::array();  // what the client sends where it sends no body

json contact(const std::string& id, const std::string& name, json more = json::object()) {
  more.update({{"id", id}, {"name", name}, {"favorite", false}}, true);
  return more;
}

TEST(EmulatorDomains, UserContactsChangeTheOwnersContactsBook) {
  DomainHarness harness;
  harness.domains().addressBooks.addBook(
      {{"id", "staff"}, {"name", "Staff"}, {"type", "static"}, {"contacts", {contact("s1", "S")}}});
  harness.domains().addressBooks.addBook({{"id", "pb"}, {"name", "P"}, {"type", "phonebooks"}});
  const auto c1 = contact("c1", "Carol");
  const auto c1b = contact("c1", "Carol C",
                           {{"associatedUserId", "carol"},
                            {"phones", {{{"type", "work"}, {"value", "+1"}, {"primary", true}}}},
                            {"emails", {{{"type", "home"}, {"primary", false}}}}});

  // The answer is the JSON text "", which the client reads as the empty body it expects.
  EXPECT_EQ(json(""), ask(harness, "alice POST userContacts", c1).body);
  EXPECT_EQ((std::vector<Pushed>{{"alice",
                                  "/addressbooks/contacts-alice",
                                  "POST",
                                  {{"addressBookId", "contacts-alice"},
                                   {"addressBookType", "contacts"},
                                   {"contact", c1}}}}),
            harness.pushed);

  const auto books = [](json list) { return json{{"addressBooks", std::move(list)}}; };
  const std::string book = " /addressbooks/contacts-alice ";
  run(harness,
      {
          {"alice POST userContacts", c1, 409, nullptr, ""},
          {"alice PUT userContacts/c1", c1b, 200, "", "alice PUT" + book + "c1:Carol C"},
          {"alice PUT userContacts/c2", contact("c2", "x"), 404, nullptr, ""},
          {"alice PUT userContacts/c1", contact("c9", "x"), 400, nullptr, ""},
          {"alice GET /addressbooks?contacts=true", kNone, 200,
           books({{{"id", "contacts-alice"}, {"type", "contacts"}, {"contacts", {c1b}}}}), ""},
          {"bob GET /addressbooks?contacts=true", kNone, 200,
           books({{{"id", "contacts-bob"}, {"contacts", kNone}}}), ""},
          {"alice GET /addressbooks?phonebooks=true&static=true&contacts=false", kNone, 200,
           books({{{"id", "staff"},
                   {"name", "Staff"},
                   {"type", "static"},
                   {"contacts", {{{"id", "s1"}}}}},
                  {{"id", "pb"}, {"type", "phonebooks"}, {"contacts", kNone}}}),
           ""},
          {"alice GET /addressbooks?static=false", kNone, 200, books(kNone), ""},
          {"alice GET /addressbooks", kNone, 200,
           books({{{"id", "contacts-alice"}}, {{"id", "staff"}}, {{"id", "pb"}}}), ""},
          {"alice DELETE userContacts/c1", json::object(), 200, "",
           "alice DELETE" + book + "c1:Carol C"},
          {"alice DELETE userContacts/c1", json::object(), 404, nullptr, ""},
          {"alice GET /addressbooks?contacts=true", kNone, 200, books({{{"contacts", kNone}}}), ""},
      });
}

TEST(EmulatorDomains, PresenceGoesToTheSocketsSubscribedToIt) {
  DomainHarness harness;
  const json offline = {{"address", "kel-user:alice"}, {"online", false},
                        {"activity", "offline"},       {"username", "alice"},
                        {"domain", "emulator.kel"},    {"role", "user"},
                        {"displayName", "alice"}};
  EXPECT_EQ(offline, ask(harness, "bob POST /presence", {{"address", "kel-user:alice"}}).body);

  const json changes = {{"online", true}, {"activity", "busy"},     {"avatar", "A"},
                        {"note", "n"},    {"displayName", "Alice"}, {"ignored", 1}};
  json busy = offline;
  busy.update(changes);
  busy.erase("ignored");
  const std::string toSubscribers =
      "#2 PUT /presence/kel-user:alice kel-user:alice; #3 PUT /presence/kel-user:alice "
      "kel-user:alice";
  run(harness, {
                   {"carol POST /batch/presence",
                    {"alice@emulator.kel", "nobody", "bob"},
                    200,
                    {{{"address", "kel-user:alice"}}, {{"address", "kel-user:bob"}}},
                    ""},
                   {"bob GET /presence/kel-user:nobody", kNone, 404, nullptr, ""},
                   {"alice PUT /presence/alice", changes, 200, busy, toSubscribers},
               });
  EXPECT_EQ(busy, harness.pushed.at(0).body);
  run(harness, {
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
                   {"bob PUT /presence/alice", {{"note", "mine"}}, 403, nullptr, ""},
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
  EXPECT_EQ((std::set<SocketId>{2}), harness.domains().presences.subscribers("alice"));
}

TEST(EmulatorDomains, GroupsAreChangedByTheirOwnerAndTellEveryoneConcerned) {
  DomainHarness harness;
  const json created = {{"groupId", "g1"},
                        {"chatId", "chat-g1"},
                        {"name", "Support"},
                        {"participants", kNone},
                        {"owner", harness.user("alice")},
                        {"ringingStrategy", {{"type", "simultaneous"}}}};
  EXPECT_EQ(created,
            ask(harness, "alice POST /usersGroup", {{"name", "Support"}, {"groupId", "g1"}}).body);
  EXPECT_EQ((std::vector<Pushed>{{"alice", "/usersGroup", "POST", created}}), harness.pushed);

  const json sequential = {{"type", "sequential"}, {"properties", {{"delay", 10}, {"steps", 2}}}};
  const json bob = {{"targetUserId", "bob"}};
  const json carol = {{"targetUserId", "carol"}};
  const json ok = json::object();
  run(harness,
      {
          {"alice POST /usersGroup", {{"name", "Again"}, {"groupId", "g1"}}, 409, nullptr, ""},
          {"bob POST /usersGroup/g1/participants", carol, 403, nullptr, ""},
          {"alice POST /usersGroup/g1/participants", bob, 200, ok,
           "bob POST /usersGroup g1[bob]; alice PUT /usersGroup g1[bob]"},
          {"alice POST /usersGroup/g1/participants", carol, 200, ok,
           "carol POST /usersGroup g1[bob carol]; alice PUT /usersGroup g1[bob carol]; "
           "bob PUT /usersGroup g1[bob carol]"},
          {"alice POST /usersGroup/g1/participants", bob, 409, nullptr, ""},
          {"alice POST /usersGroup/g1/participants", {{"targetUserId", "zed"}}, 404, nullptr, ""},
          {"carol HEAD /usersGroup/g1/participants/bob", kNone, 200, nullptr, ""},
          {"carol HEAD /usersGroup/g1/participants/alice", kNone, 404, nullptr, ""},
          {"carol HEAD /usersGroup/g9/participants/bob", kNone, 404, nullptr, ""},
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
          {"carol GET /usersGroup/g1",
           kNone,
           200,
           {{"participants", {"carol", "bob"}}, {"ringingStrategy", sequential}},
           ""},
          {"bob GET /usersGroup?participating=true", kNone, 200, {{{"groupId", "g1"}}}, ""},
          {"bob GET /usersGroup?participating=false", kNone, 200, kNone, ""},
          {"alice GET /usersGroup?participating=false", kNone, 200, {{{"groupId", "g1"}}}, ""},
          {"alice GET /usersGroup?participating=true", kNone, 200, kNone, ""},
          // The client's path for leaving has two slashes.
          {"bob DELETE /usersGroup/g1//leave", kNone, 200, ok,
           "bob DELETE /usersGroup/participant {\"groupId\":\"g1\"}; "
           "alice PUT /usersGroup g1[carol] sequential; carol PUT /usersGroup g1[carol] "
           "sequential"},
          {"bob DELETE /usersGroup/g1//leave", kNone, 404, nullptr, ""},
          {"alice DELETE /usersGroup/g1/participants", carol, 200, ok,
           "carol DELETE /usersGroup/participant {\"groupId\":\"g1\"}; "
           "alice PUT /usersGroup g1[] sequential"},
          // Without an id a group gets the next free one.
          {"alice POST /usersGroup",
           {{"name", "Two"}},
           200,
           {{"groupId", "group-1"}},
           "alice POST /usersGroup group-1[]"},
          {"alice POST /usersGroup/group-1/participants", bob, 200, ok,
           "bob POST /usersGroup group-1[bob]; alice PUT /usersGroup group-1[bob]"},
          {"alice POST /usersGroup/group-1/participants", carol, 200, ok,
           "carol POST /usersGroup group-1[bob carol]; alice PUT /usersGroup group-1[bob carol]; "
           "bob PUT /usersGroup group-1[bob carol]"},
          {"alice DELETE /usersGroup/group-1/participants", kNone, 200, ok,
           "bob DELETE /usersGroup/participant {\"groupId\":\"group-1\"}; "
           "carol DELETE /usersGroup/participant {\"groupId\":\"group-1\"}; "
           "alice PUT /usersGroup group-1[]"},
          {"alice POST /usersGroup/g1/participants", bob, 200, ok,
           "bob POST /usersGroup g1[bob] sequential; alice PUT /usersGroup g1[bob] sequential"},
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
          {"bob DELETE /usersGroup/g1", kNone, 403, nullptr, ""},
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
  const json strategy = {{"type", "sequential"}, {"properties", {{"delay", 1}, {"steps", 2}}}};

  struct Refused {
    std::string request;
    json body;
    int status;
  };
  const std::vector<Refused> refused{
      {"alice POST userContacts", {{"name", "x"}, {"favorite", false}}, 400},
      {"alice POST userContacts", {{"id", "c2"}, {"name", "x"}, {"favorite", "no"}}, 400},
      {"alice POST userContacts", contact("a/b", "x"), 400},
      {"alice POST userContacts",
       contact("c2", "x", {{"phones", {{{"type", "w"}, {"primary", true}}}}}), 400},
      {"alice POST userContacts",
       contact("c2", "x", {{"emails", {{{"type", "w"}, {"value", 3}, {"primary", true}}}}}), 400},
      {"alice PUT userContacts/c1", {{"id", "c1"}, {"name", 5}, {"favorite", false}}, 400},
      {"alice DELETE userContacts/nope", json::object(), 404},
      {"alice PUT /presence/alice", {{"online", true}, {"avatar", 5}}, 400},
      {"alice PUT /presence/alice", kNone, 400},
      {"alice PUT /presence/bob", {{"note", "x"}}, 403},
      {"alice PUT /presence/zed", {{"note", "x"}}, 404},
      {"carol POST /presence", {{"address", 5}}, 400},
      {"carol POST /presence", {{"address", "zed"}}, 404},
      {"carol POST /batch/presence", {"alice", 5}, 400},
      {"carol GET /presence/alice?withoutAvatar=maybe", kNone, 400},
      {"alice POST /usersGroup", {{"name", 5}}, 400},
      {"alice POST /usersGroup", {{"name", "x"}, {"groupId", ""}}, 400},
      {"alice PUT /usersGroup/g1", {{"ringingStrategy", {{"type", "sequential"}}}}, 400},
      {"alice PUT /usersGroup/g1",
       {{"ringingStrategy",
         {{"type", "sequential"}, {"properties", {{"delay", "1"}, {"steps", 2}}}}}},
       400},
      {"alice PUT /usersGroup/g1", {{"ringingStrategy", {{"type", "loud"}}}}, 400},
      {"bob PUT /usersGroup/g1", {{"ringingStrategy", strategy}}, 403},
      {"alice PUT /usersGroup/g9", {{"ringingStrategy", strategy}}, 404},
      {"alice POST /usersGroup/g1/participants", {{"targetUserId", 7}}, 400},
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
