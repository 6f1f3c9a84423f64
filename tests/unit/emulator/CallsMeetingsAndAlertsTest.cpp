// Meetings, the conference log, missed calls and alerts: operator calls and a driven clock make
// the history; the tables check what clients read of it and the events they get.

#include <gtest/gtest.h>

#include "DomainHarness.h"

namespace kel::emulator::test {
namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kT = 1'700'000'000'000;  // the harness's clock, in milliseconds

json missedCalls(const std::vector<std::string>& ids) {
  return {{"data", {{"items", each("id", ids)}}}};
}

// Registered participants (known by e-mail or phone) hear of the meetings they are invited to,
// and of being dropped from them.
TEST(EmulatorMeetings, TheServerFillsInAMeetingAndTellsItsRegisteredParticipants) {
  DomainHarness harness;
  auto carol = defaultAccount("carol");
  carol.user["mobilePhone"] = {"+15550100"};
  harness.signIn.addAccount(carol);
  const json bobAndGuest = {{{"sendSMS", false}, {"email", "bob@emulator.kel"}},
                            {{"sendSMS", true}, {"phone", "+15550199"}}};
  // Valid for a day unless said otherwise; the guest known by phone only has no user id.
  auto created = json::parse(R"({"id": "meeting-1", "name": "Board", "validSince": 1700000000000,
      "participants": [{"email": "bob@emulator.kel", "userId": "bob", "phone": null},
                       {"phone": "+15550199", "userId": null, "email": null}],
      "validUntil": 1700086400000, "url": "https://meet.emulator.kel/meeting-1",
      "isPasswordProtected": true, "record": {"type": "all"}})");
  created["user"] = harness.signIn.account("alice")->user;
  const json changed = {{"participants", {{{"phone", "+15550100"}, {"userId", "carol"}}}},
                        {"isPasswordProtected", false},
                        {"validUntil", 1700003600000}};
  const auto toCarol =
      invitation("Board", {{{"phone", "+15550100"}}}, {{"validUntil", 1700003600000.0}});
  const std::string path = " /meetings/meeting-1 meeting-1";
  const auto standup = invitation("Standup", kNoBody, {{"language", "de"}});
  harness.run({
      {"alice POST /meetings",
       invitation("Board", bobAndGuest, {{"password", "12345678"}, {"record", {{"type", "all"}}}}),
       200, created, "alice POST" + path + "[bob]; bob POST" + path + "[bob]"},
      {"alice POST /meetings", standup, 200, ids({"meeting-2"})[0],
       "alice POST /meetings/meeting-2 meeting-2[]"},
      {"bob GET /meetings/meeting-1", 200, {{"id", "meeting-1"}}},
      // Without all=true only one's own meetings.
      {"bob GET /meetings", 200, kNoBody},
      {"bob GET /meetings?all=true", 200, ids({"meeting-1"})},
      {"alice GET /meetings?name=BOA&all=true", 200, ids({"meeting-1"})},
      {"alice GET /meetings?phone=%2B15550199&all=true", 200, ids({"meeting-1"})},
      {"alice GET /meetings?language=de&all=true", 200, ids({"meeting-2"})},
      {"alice GET /meetings?validUntil=1700086400000.5&all=true", 200, kNoBody},
      {"alice GET /meetings?validUntil=1.7e12&all=true", 200, ids({"meeting-1", "meeting-2"})},
      {"alice PUT /meetings/meeting-1?sendInvites=true", toCarol, 200, changed,
       "alice PUT" + path + "[carol]; carol POST" + path + "[carol]; bob DELETE" + path +
           "[carol]"},
      {"alice PUT /meetings/meeting-1", toCarol, 200, changed,
       "alice PUT" + path + "[carol]; carol PUT" + path + "[carol]"},
      {"alice DELETE /meetings/meeting-1", 200, json::object(),
       "alice DELETE" + path + "[carol]; carol DELETE" + path + "[carol]"},
      {"bob GET /meetings/meeting-1", 404, nullptr},
  });
}

TEST(EmulatorCallHistory, CallsFillBothLogsAndMissedCallsTheCalleesList) {
  DomainHarness harness;
  auto& calls = harness.domains.callHistory;
  calls.placeCall({"alice", "bob", CallOutcome::answered, 60s, true});
  EXPECT_EQ(
      "alice POST /conferences conference-1 ACCEPTED; bob POST /conferences conference-1 ACCEPTED",
      harness.takeEvents());
  harness.now += 1h;
  const auto missed = calls.placeCall({"bob", "alice", CallOutcome::missed, 30s, false});
  EXPECT_EQ(
      "bob POST /conferences conference-2 DECLINED_BY_TIMEOUT; alice POST /conferences "
      "conference-2 DECLINED_BY_TIMEOUT; alice PUT /missedCalls/alice "
      R"({"items":[{"conferenceId":"conference-2","createdAt":1700003570000,"from":"kel-user:bob",)"
      R"("id":"missed-2"}]})",
      harness.takeEvents());
  EXPECT_EQ(json::parse(R"({"id": "conference-2", "roomId": "room-2", "state": "finished",
      "type": "call", "createdAt": 1700003570000, "finishedAt": 1700003600000, "transfers": [],
      "invites": [{"from": "kel-user:bob", "to": "kel-user:alice", "state": "DECLINED_BY_TIMEOUT",
                   "candidates": [{"address": "kel-user:alice", "endReason": 408}], "error": 408,
                   "group": false, "mediatypes": {"audio": true, "video": false}}],
      "participants": [{"address": "kel-user:bob", "createdAt": 1700003570000,
                        "finishedAt": 1700003600000}]})"),
            missed);
  harness.now += 1h;
  calls.placeCall({"alice", "carol", CallOutcome::declined, 0s, false});
  harness.now += 1h;
  calls.placeCall({"carol", "alice", CallOutcome::missed, 0s, false});

  const auto since = std::to_string(kT + 3'600'000 - 30'000);
  const auto before = std::to_string(kT + 7'200'000);
  harness.run({
      {"alice GET /conferences?limit=2&sortBy=createdAt.desc", 200,
       ids({"conference-4", "conference-3"})},
      {"alice GET /conferences?limit=20&sortBy=createdAt.asc&createdAtSince=" + since +
           "&createdAtBefore=" + before,
       200, ids({"conference-2"})},
      {"bob GET /conferences?limit=20&sortBy=createdAt.asc", 200,
       ids({"conference-1", "conference-2"})},
      {"carol GET /conferences", 200,
       json{{{"id", "conference-4"}, {"invites", {{{"state", "DECLINED_BY_TIMEOUT"}}}}},
            {{"id", "conference-3"}, {"invites", {{{"state", "DECLINED"}, {"error", 603}}}}}}},
      {"alice GET /missedCalls/alice", 200, missedCalls({"missed-2", "missed-4"})},
      {"bob GET /missedCalls/bob", 200, missedCalls({})},
      {"alice POST /missedCalls/alice/read?last=missed-2", json::object(), 200, nullptr},
      {"alice GET /missedCalls/alice", 200, missedCalls({"missed-4"})},
      {"alice POST /missedCalls/alice/read?last=missed-4", json::object(), 200, nullptr},
      {"alice GET /missedCalls/alice", 200, missedCalls({})},
  });
  EXPECT_THROW(calls.placeCall({"alice", "zed", CallOutcome::answered, 0s, false}),
               std::invalid_argument);
}

// The program's operator places calls with a plain HTTP request.
TEST(EmulatorCallHistory, TheControlRequestPlacesACallOrRefusesItUnchanged) {
  DomainHarness harness;
  // Through the HTTP router, which reads the method in any case.
  const auto post = [&](std::string body, std::string method = "post",
                        std::string path = "/emulator/calls") {
    HttpRequest request;
    request.method = std::move(method);
    request.path = std::move(path);
    request.body = std::move(body);
    return harness.http.handle(std::move(request));
  };
  const auto placed =
      post(R"({"from": "carol", "to": "bob", "outcome": "busy", "durationSeconds": 5})");
  EXPECT_EQ(200, placed.status);
  EXPECT_TRUE(includes(json::parse(placed.body),
                       {{"createdAt", kT - 5000}, {"invites", {{{"error", 486}}}}}));
  EXPECT_EQ(2u, harness.pushed.size());
  const auto before = harness.state();
  harness.pushed.clear();
  for (const auto& [body, status] : std::vector<std::pair<std::string, int>>{
           {R"({"from": "carol", "to": "zed", "outcome": "missed"})", 404},
           {R"({"from": "carol", "to": "carol", "outcome": "missed"})", 400},
           {R"({"from": "carol", "to": "bob", "outcome": "missed", "durationSeconds": -1})", 400},
           {R"({"from": "carol", "to": "bob"})", 400},
           {"carol calls bob", 400},
       }) {
    EXPECT_EQ(status, post(body).status) << body;
  }
  EXPECT_EQ(405, post("{}", "GET").status);
  EXPECT_EQ(404, post("{}", "POST", "/emulator/nothing").status);
  EXPECT_EQ(before, harness.state());
  EXPECT_TRUE(harness.pushed.empty());
}

// Alerts go to every user of the raiser's domain (dave is elsewhere); they are accepted by
// another user or expire after their lifetime, and the lists show each within its window.
TEST(EmulatorAlerts, RaisedAcceptedAndExpiredAlertsReachTheWholeDomain) {
  DomainHarness harness;
  auto dave = defaultAccount("dave");
  dave.user["domain"] = "elsewhere.kel";
  harness.signIn.addAccount(dave);
  auto& alerts = harness.domains.alerts;
  const json fire = {{"templateId", "fire"}, {"title", "Fire"}, {"payload", "Leave now"}};
  alerts.addTemplate(fire);
  alerts.setLifetime(10min);
  const auto toDomain = [](const std::string& method, const std::string& what) {
    std::string events;
    for (const auto* user : {"alice", "bob", "carol"}) {
      events += std::string(events.empty() ? "" : "; ") + user + " " + method + " /alerts " + what;
    }
    return events;
  };
  const auto raise = [](const char* id) { return json{{"alertId", id}, {"templateId", "fire"}}; };
  const auto lists = [](json active, json accepted, json expired) {
    return json{{"active", active}, {"accepted", accepted}, {"expired", expired}};
  };
  const json raised = {{"alertId", "A-1"},       {"from", "alice"},      {"title", "Fire"},
                       {"payload", "Leave now"}, {"createdAt", kT},      {"cancelled", false},
                       {"resolvedAt", nullptr},  {"acceptedBy", nullptr}};
  const json accepted =
      json::array({{{"alertId", "A-1"}, {"acceptedBy", "bob"}, {"resolvedAt", kT}}});
  const json none = kNoBody;
  const json a1 = {{"alertId", "A-1"}};
  // The templates are read by KelCliTest's alert commands.
  harness.run({
      {"alice POST /alerts", raise("A-1"), 200, raised, toDomain("POST", "A-1 active")},
      {"alice POST /alerts", raise("A-2"), 200, nullptr, toDomain("POST", "A-2 active")},
      {"bob POST /alerts/accept", a1, 200, nullptr, toDomain("PUT", "A-1 accepted by bob")},
      {"carol GET /alerts?acceptedSince=60000", 200,
       lists(each("alertId", {"A-2"}), accepted, none)},
      {"carol GET /alerts", 200, {{"accepted", none}, {"cancelled", none}}},
      {"dave GET /alerts?acceptedSince=-1&expiredSince=-1", 200, lists(none, none, none)},
  });

  harness.now += 10min - 1ms;
  EXPECT_EQ(0u, alerts.expireDue());
  harness.now += 1ms;
  harness.pushed.clear();
  EXPECT_EQ(1u, alerts.expireDue());
  EXPECT_EQ(toDomain("DELETE", "A-2 expired"), harness.takeEvents());
  harness.now += 1min;
  const auto expired = json::array({{{"alertId", "A-2"}, {"resolvedAt", kT + 600'000}}});
  harness.run({
      // The accepted alert is 11 minutes old, the expired one 1 minute.
      {"bob GET /alerts?acceptedSince=600000&expiredSince=60000", 200, lists(none, none, expired)},
      {"bob GET /alerts?acceptedSince=-1&expiredSince=59999", 200, lists(none, accepted, none)},
      {"carol POST /alerts/accept", {{"alertId", "A-2"}}, 409, nullptr},
  });
}

}  // namespace
}  // namespace kel::emulator::test
