#include <gtest/gtest.h>

#include "ServerClient/Meeting/Service/KelMeetingsService.h"
#include "support/OperationTable.h"

namespace kel {
namespace {

using namespace testing::tables;
using std::chrono::system_clock;

const system_clock::time_point kSince{std::chrono::seconds(1700000000)};

json owner(json phones = json::array()) {
  auto user = json::parse(R"({"id": "u1", "domain": "d", "email": "ann@d", "username": "ann",
                              "alias": "Ann", "role": "user"})");
  user["mobilePhone"] = std::move(phones);
  return user;
}

json meeting() {
  auto meeting = json::parse(R"({"id": "m1", "name": "Board", "participants": [{"email": "bob@d"}],
      "validSince": 1700000000000, "validUntil": 1700000000500.0, "url": "https://m",
      "isPasswordProtected": false, "record": {"type": "none"}})");
  meeting["user"] = owner();
  return meeting;
}

TEST(MeetingRecords, DecodePutsTheOwnerFirstAndReadsMilliseconds) {
  const auto decoded = from<Meeting>(meeting().dump());
  EXPECT_EQ((std::vector<Meeting::Participant>{{"ann@d", std::nullopt, "u1"},
                                               {"bob@d", std::nullopt, std::nullopt}}),
            decoded.participants);
  EXPECT_EQ(kSince, decoded.validSince);
  EXPECT_EQ(kSince + std::chrono::milliseconds(500), decoded.validUntil);
  EXPECT_FALSE(decoded.record.isActive());

  auto withPhones = meeting();
  withPhones["user"] = owner({"+1", "+2"});
  withPhones["participants"] = json::array();
  withPhones["record"]["type"] = "all";
  const auto alone = from<Meeting>(withPhones.dump());
  EXPECT_EQ((std::vector<Meeting::Participant>{{"ann@d", "+1", "u1"}}), alone.participants);
  EXPECT_TRUE(alone.record.isActive());

  for (const auto& [key, value] : std::vector<std::pair<std::string, json>>{
           {"url", nullptr},
           {"record", nullptr},
           {"validSince", "2023-11-14T22:13:20Z"},
           {"validUntil", true},
           {"validUntil", 1e300},
           {"participants", {{{"email", 1}}}},
       }) {
    SCOPED_TRACE(key + " " + value.dump());
    auto broken = meeting();
    if (value.is_null()) {
      broken.erase(key);
    } else {
      broken[key] = value;
    }
    EXPECT_THROW(from<Meeting>(broken.dump()), GenericError);
  }
}

TEST(MeetingRecords, InvitationsWriteTheirKeysInOrderWithAFreshPasswordWhenProtected) {
  const MeetingInvitation open("Board",
                               {{true, "+1", std::nullopt}, {std::nullopt, std::nullopt, "b@d"}},
                               "en", kSince, std::nullopt, true, false, false);
  EXPECT_EQ(R"({"name":"Board","participants":[{"sendSMS":true,"phone":"+1"},{"email":"b@d"}],)"
            R"("language":"en","validSince":1700000000000,"record":{"type":"none"}})",
            nlohmann::ordered_json(open).dump());

  const MeetingInvitation first("B", {}, "en", kSince, kSince + std::chrono::hours(1), std::nullopt,
                                true, true);
  const MeetingInvitation second("B", {}, "en", kSince, std::nullopt, std::nullopt, true, true);
  nlohmann::ordered_json encoded(first);
  encoded["password"] = "********";  // replaced in place: the key keeps its position
  EXPECT_EQ(R"({"name":"B","participants":[],"language":"en","validSince":1700000000000,)"
            R"("validUntil":1700003600000,"password":"********","record":{"type":"all"}})",
            encoded.dump());
  ASSERT_TRUE(first.password && second.password);
  EXPECT_EQ(8u, first.password->size());
  EXPECT_NE(*first.password, *second.password);
}

TEST(MeetingsService, EachOperationWritesItsFrameAndDecodesItsAnswer) {
  const MeetingInvitation invitation("Board", {}, "en", kSince, std::nullopt, true, false, true);
  MeetingInvitation silent = invitation;
  silent.sendInvites.reset();
  const json body = json(invitation);
  const json decoded = json(from<Meeting>(meeting().dump()));
  const auto answer = Reply::withBody(meeting());
  const MeetingSearch everything{
      .language = "en", .phone = "+1 2", .name = "board", .validUntil = kSince};
  testing::runOperationTable<KelMeetingsService>({
      {"create", [&](auto& s) { return outcome(s.createMeeting(invitation)); },
       frame("POST", "/meetings", body), answer, decoded},
      {"delete", [&](auto& s) { return outcome(s.deleteMeeting(from<Meeting>(meeting().dump()))); },
       frame("DELETE", "/meetings/m1", json::object()), Reply::withBody({1}), "unit"},
      {"update", [&](auto& s) { return outcome(s.updateMeeting("m1", invitation)); },
       frame("PUT", "/meetings/m1?sendInvites=true", body), answer, decoded},
      {"update without invites", [&](auto& s) { return outcome(s.updateMeeting("m1", silent)); },
       frame("PUT", "/meetings/m1", body), answer, decoded},
      {"meeting", [](auto& s) { return outcome(s.meeting("m1")); },
       frame("GET", "/meetings/m1", json::object()), answer, decoded},
      {"search nothing", [](auto& s) { return outcome(s.meetings(MeetingSearch{})); },
       frame("GET", "/meetings?all=true", json::object()), Reply::withBody(json::array()),
       json::array()},
      {"search everything", [&](auto& s) { return outcome(s.meetings(everything)); },
       frame("GET",
             "/meetings?all=true&language=en&name=board&phone=%2B1%202&validUntil=1700000000000",
             json::object()),
       Reply::withBody({meeting()}), json::array({decoded})},
  });
}

}  // namespace
}  // namespace kel
