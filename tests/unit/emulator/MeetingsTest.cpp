// Meetings as clients drive them: one session of requests, each step with its answer and exactly
// the events it pushes.

#include <gtest/gtest.h>

#include "DomainHarness.h"

namespace kel::emulator::test {
namespace {

/// An invitation as the client writes it (instants as floating-point milliseconds).
json invitation(const std::string& name, json participants, json more = json::object()) {
  json body = {{"name", name},
               {"participants", std::move(participants)},
               {"language", "en"},
               {"validSince", 1700000000000.0},
               {"record", {{"type", "none"}}}};
  body.update(more);
  return body;
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
  harness.run({
      {"alice POST /meetings",
       invitation("Board", bobAndGuest, {{"password", "12345678"}, {"record", {{"type", "all"}}}}),
       200, created, "alice POST" + path + "[bob]; bob POST" + path + "[bob]"},
      {"alice POST /meetings",
       invitation("Standup", kNoBody, {{"language", "de"}}),
       200,
       {{"id", "meeting-2"}},
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

}  // namespace
}  // namespace kel::emulator::test
