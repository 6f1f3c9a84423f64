// The emulator's domains as clients drive them: each table is one session of requests, each step
// with the answer it gets and exactly the events it pushes. The library's integration tests follow
// the usual paths through one other session; these see every recipient and every refusal.

#include <gtest/gtest.h>

#include "DomainHarness.h"

namespace kel::emulator::test {
namespace {

using namespace std::chrono_literals;

const json& kNone = kNoBody;

json contact(const std::string& id, const std::string& name, json more = json::object()) {
  more.update({{"id", id}, {"name", name}, {"favorite", false}}, true);
  return more;
}

/// {"addressBooks": [{"id": id}, ...]}, the first book completed by `more`.
json books(const std::vector<std::string>& ids, const json& more = json::object()) {
  auto list = each("id", ids);
  if (!list.empty()) list[0].update(more);
  return {{"addressBooks", list}};
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
  const std::string book = " /addressbooks/contacts-alice ";
  const json staff = {{"contacts", {{{"id", "s1"}}}}};
  harness.run({
      // The answer is the JSON text "", which the client reads as the empty body it expects.
      {"alice POST userContacts", contact("c1", "C"), 200, "", "alice POST" + book + "c1:C"},
      {"alice PUT userContacts/c1", full, 200, "", "alice PUT" + book + "c1:Carol C"},
      {"alice GET /addressbooks?contacts=true", 200,
       books({"contacts-alice"}, {{"contacts", {full}}})},
      {"bob GET /addressbooks?contacts=true", 200, books({"contacts-bob"}, {{"contacts", kNone}})},
      {"alice GET /addressbooks?phonebooks=true&static=true&contacts=false", 200,
       books({"staff", "pb"}, staff)},
      {"alice GET /addressbooks?static=false", 200, books({})},
      {"alice GET /addressbooks", 200, books({"contacts-alice", "staff", "pb"})},
  });
}

TEST(EmulatorDomains, PresenceGoesToEverySocketSubscribedToIt) {
  DomainHarness harness;
  const json changes = {{"online", true}, {"activity", "busy"},     {"avatar", "A"},
                        {"note", "n"},    {"displayName", "Alice"}, {"ignored", 1}};
  json busy = changes;
  busy["ignored"] = nullptr;
  const std::string toSubscribers =
      "#2 PUT /presence/kel-user:alice kel-user:alice; #3 PUT /presence/kel-user:alice "
      "kel-user:alice";
  const json addresses = {"alice@emulator.kel", "nobody", "bob"};
  const json found = {{{"address", "kel-user:alice"}}, {{"address", "kel-user:bob"}}};
  const json withoutAvatar = {{"avatar", nullptr}, {"note", "n"}};
  const json withAvatar = {{"avatar", "A"}};
  // null restores the default: no avatar, the alias as the display name.
  const json reset = {{"avatar", nullptr}, {"displayName", nullptr}};
  const json defaults = {{"avatar", nullptr}, {"displayName", "alice"}, {"note", "n"}};
  const json offline = {{"online", false}};
  harness.run({
      {"bob POST /presence", {{"address", "kel-user:alice"}}, 200, offline},
      {"carol POST /batch/presence", addresses, 200, found},
      {"alice PUT /presence/alice", changes, 200, busy, toSubscribers},
      {"bob GET /presence/kel-user:alice?withoutAvatar=true", 200, withoutAvatar},
      {"bob GET /presence/alice@emulator.kel?withoutAvatar=false", 200, withAvatar},
      {"alice PUT /presence/kel-user:alice", reset, 200, defaults, toSubscribers},
  });

  // A closed socket's subscription is forgotten at the next change it misses.
  harness.closedSockets = {3};
  harness.call("alice PUT /presence/alice", {{"note", "a"}});
  EXPECT_EQ((std::set<SocketId>{2}), harness.domains.presences.subscribers("alice"));
}

// The owner is told of every change, the participants of the groups they are in; a group's id is
// the next free one.
TEST(EmulatorDomains, GroupsAreChangedByTheirOwnerAndTellEveryoneConcerned) {
  DomainHarness harness;
  const json bob = {{"targetUserId", "bob"}};
  const json carol = {{"targetUserId", "carol"}};
  const json ok = json::object();
  const json named = {{"name", "G"}};
  const json reordered = {{"participants", {"carol", "bob"}}};
  const auto groups = [](const std::vector<std::string>& ids) { return each("groupId", ids); };
  const json created = {{"groupId", "group-1"},
                        {"chatId", "chat-group-1"},
                        {"participants", kNone},
                        {"owner", harness.signIn.account("alice")->user},
                        {"ringingStrategy", {{"type", "simultaneous"}}}};
  const auto left = [](const std::string& user, const std::string& group) {
    return user + " DELETE /usersGroup/participant {\"groupId\":\"" + group + "\"}; ";
  };
  harness.run({
      {"alice POST /usersGroup", named, 200, created, "alice POST /usersGroup group-1[]"},
      {"alice POST /usersGroup", named, 200, groups({"group-2"})[0],
       "alice POST /usersGroup group-2[]"},
      {"alice POST /usersGroup/group-1/participants", bob, 200, ok,
       "bob POST /usersGroup group-1[bob]; alice PUT /usersGroup group-1[bob]"},
      {"alice POST /usersGroup/group-1/participants", carol, 200, ok,
       "carol POST /usersGroup group-1[bob carol]; alice PUT /usersGroup group-1[bob carol]; "
       "bob PUT /usersGroup group-1[bob carol]"},
      {"alice PUT /usersGroup/group-1/participants", reordered, 200, ok,
       "alice PUT /usersGroup group-1[carol bob]; carol PUT /usersGroup group-1[carol bob]; "
       "bob PUT /usersGroup group-1[carol bob]"},
      {"alice POST /usersGroup/group-2/participants", bob, 200, ok,
       "bob POST /usersGroup group-2[bob]; alice PUT /usersGroup group-2[bob]"},
      {"bob GET /usersGroup?participating=true", 200, groups({"group-1", "group-2"})},
      {"bob GET /usersGroup?participating=false", 200, kNone},
      {"alice GET /usersGroup?participating=false", 200, groups({"group-1", "group-2"})},
      {"alice GET /usersGroup?participating=true", 200, kNone},
      // The client's path for leaving has two slashes.
      {"bob DELETE /usersGroup/group-1//leave", 200, ok,
       left("bob", "group-1") +
           "alice PUT /usersGroup group-1[carol]; carol PUT /usersGroup group-1[carol]"},
      {"alice POST /usersGroup/group-1/participants", bob, 200, ok,
       "bob POST /usersGroup group-1[carol bob]; alice PUT /usersGroup group-1[carol bob]; "
       "carol PUT /usersGroup group-1[carol bob]"},
      {"alice DELETE /usersGroup/group-1/participants", carol, 200, ok,
       left("carol", "group-1") +
           "alice PUT /usersGroup group-1[bob]; bob PUT /usersGroup group-1[bob]"},
      {"alice POST /usersGroup/group-2/participants", carol, 200, ok,
       "carol POST /usersGroup group-2[bob carol]; alice PUT /usersGroup group-2[bob carol]; "
       "bob PUT /usersGroup group-2[bob carol]"},
      {"alice DELETE /usersGroup/group-2/participants", 200, ok,
       left("bob", "group-2") + left("carol", "group-2") + "alice PUT /usersGroup group-2[]"},
      {"alice POST /usersGroup/group-2/participants", bob, 200, ok,
       "bob POST /usersGroup group-2[bob]; alice PUT /usersGroup group-2[bob]"},
      {"bob DELETE /usersGroups/participations", 200, ok,
       left("bob", "group-1") + "alice PUT /usersGroup group-1[]; " + left("bob", "group-2") +
           "alice PUT /usersGroup group-2[]"},
      {"alice POST /usersGroup/group-1/participants", carol, 200, ok,
       "carol POST /usersGroup group-1[carol]; alice PUT /usersGroup group-1[carol]"},
      // Text values only: the client drops a deletion whose body holds anything else.
      {"alice DELETE /usersGroup/group-1", 200, ok,
       "alice DELETE /usersGroup {\"groupId\":\"group-1\"}; "
       "carol DELETE /usersGroup {\"groupId\":\"group-1\"}"},
      {"carol GET /usersGroup/group-1", 404, nullptr},
  });
}

// Every refused request is answered with its reason and leaves everything as it was; so does a
// repeated one.
TEST(EmulatorDomains, RefusedOrRepeatedRequestsChangeNothingAndPushNothing) {
  DomainHarness harness;
  harness.domains.alerts.addTemplate({{"templateId", "t"}, {"title", "T"}, {"payload", "P"}});
  harness.domains.callHistory.placeCall({"bob", "alice", CallOutcome::missed, 0s, false});
  const auto c1 = contact("c1", "C");
  const auto with = [](json more) { return invitation("M", kNoBody, std::move(more)); };
  const json valid = with(json::object());
  for (const auto& [line, body] : std::vector<std::pair<std::string, json>>{
           {"alice POST userContacts", c1},
           {"bob POST /presence", {{"address", "alice"}}},
           {"alice POST /usersGroup", {{"name", "G"}, {"groupId", "g1"}}},
           {"alice POST /usersGroup/g1/participants", {{"targetUserId", "bob"}}},
           {"alice POST /meetings", valid},
           {"alice POST /alerts", {{"alertId", "a1"}, {"templateId", "t"}}},
           {"alice PUT /xmpp/individualChatList/bob@kel", json::object()}}) {
    ASSERT_EQ(200, harness.call(line, body).status) << line;
  }
  const auto bobSession = "/sessions/" + harness.store.createSession("bob").sessionId;
  const json strategy = {{"type", "sequential"}, {"properties", {{"delay", 1}, {"steps", 2}}}};

  const std::vector<Refused> refused{
      {"alice POST userContacts", c1, 409},
      {"alice POST userContacts", contact("a/b", "x"), 400},
      {"alice POST userContacts",
       contact("c2", "x", {{"phones", {{{"type", "w"}, {"primary", true}}}}}), 400},
      {"alice PUT userContacts/c1", contact("c9", "x"), 400},
      {"alice PUT userContacts/c2", contact("c2", "x"), 404},
      {"alice DELETE userContacts/nope", json::object(), 404},
      {"alice PUT /presence/alice", {{"online", true}, {"avatar", 5}}, 400},
      {"alice PUT /presence/bob", {{"note", "x"}}, 403},
      {"alice PUT /presence/zed", {{"note", "x"}}, 404},
      {"carol POST /presence", {{"address", 5}}, 400},
      {"carol POST /presence", {{"address", "zed"}}, 404},
      {"carol POST /batch/presence", {"alice", 5}, 400},
      {"carol GET /presence/alice?withoutAvatar=maybe", kNone, 400},
      {"carol GET /presence/kel-user:nobody", kNone, 404},
      {"alice POST /usersGroup", {{"name", "x"}, {"groupId"}}, 400},
      {"alice POST /usersGroup", {{"name", "x"}, {"groupId", "g1"}}, 409},
      {"alice PUT /usersGroup/g1", {{"ringingStrategy", {{"type", "sequential"}}}}, 400},
      {"alice PUT /usersGroup/g1", {{"ringingStrategy", {{"type", "loud"}}}}, 400},
      {"bob PUT /usersGroup/g1", {{"ringingStrategy", strategy}}, 403},
      {"alice PUT /usersGroup/g9", {{"ringingStrategy", strategy}}, 404},
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
      {"alice POST /meetings", {{"name", "M"}}, 400},
      {"alice POST /meetings", with({{"sendInvites", true}}), 400},
      {"alice POST /meetings", with({{"validSince", "tomorrow"}}), 400},
      {"alice POST /meetings", with({{"validUntil", 1.6e12}}), 400},
      {"alice POST /meetings", with({{"record", {{"type", "some"}}}}), 400},
      {"alice POST /meetings", with({{"participants", {{{"sendSMS", true}}}}}), 400},
      {"alice POST /meetings", "meeting", 400},
      {"alice PUT /meetings/meeting-1?sendInvites=maybe", valid, 400},
      {"alice PUT /meetings/meeting-9", valid, 404},
      {"bob PUT /meetings/meeting-1", valid, 403},
      {"bob DELETE /meetings/meeting-1", kNoBody, 403},
      {"alice GET /meetings?validUntil=soon", kNoBody, 400},
      {"alice GET /meetings?all=yes", kNoBody, 400},
      {"alice GET /conferences?limit=ten", kNoBody, 400},
      {"alice GET /conferences?limit=-1", kNoBody, 400},
      {"alice GET /conferences?sortBy=name", kNoBody, 400},
      {"bob GET /missedCalls/alice", kNoBody, 403},
      {"bob POST /missedCalls/alice/read?last=missed-1", json::object(), 403},
      {"alice POST /missedCalls/alice/read", json::object(), 400},
      {"alice POST /missedCalls/alice/read?last=missed-9", json::object(), 404},
      {"bob POST /alerts", {{"alertId", "a2"}, {"templateId", "nope"}}, 404},
      {"bob POST /alerts", {{"alertId", "a1"}, {"templateId", "t"}}, 409},
      {"bob POST /alerts", {{"templateId", "t"}}, 400},
      {"bob POST /alerts", {{"alertId", "a2"}, {"templateId", "t"}, {"x", 1}}, 400},
      {"bob POST /alerts/accept", {{"alertId", "a9"}}, 404},
      {"bob POST /alerts/accept", {{"alertId", 1}}, 400},
      {"alice POST /alerts/accept", {{"alertId", "a1"}}, 403},
      {"bob GET /alerts?expiredSince=-5", kNoBody, 400},
      {"bob GET /alerts?acceptedSince=lately", kNoBody, 400},
      {"alice PUT /xmpp/individualChatList/bob", kNoBody, 400},
      {"alice PUT /xmpp/individualChatList/carol@kel", {{"jid", "carol@kel"}}, 400},
      {"alice DELETE /xmpp/individualChatList/carol@kel", kNoBody, 404},
      {"bob DELETE /xmpp/individualChatList/bob@kel", kNoBody, 404},  // alice's list, not his
      {"alice PUT /xmpp/individualChatList/bob@kel", kNoBody, 200},
  };
  harness.expectRefusedWithoutChange(refused);
}

}  // namespace
}  // namespace kel::emulator::test
