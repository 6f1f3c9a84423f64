#include <gtest/gtest.h>

#include <regex>

#include "ServerClient/Alert/Service/KelAlertsService.h"
#include "support/LogCapture.h"
#include "support/OperationTable.h"

namespace kel {
namespace {

using namespace testing::tables;

json alert(std::string id) {
  return {{"alertId", std::move(id)}, {"from", "u1"},     {"title", "Fire"},
          {"payload", "Leave"},       {"createdAt", 1.5}, {"cancelled", false}};
}

TEST(AlertsService, EachOperationWritesItsFrameAndTakesItsListsOutOfTheAnswer) {
  testing::LogCapture log;
  const json tmpl = {{"templateId", "t1"}, {"title", "Fire"}, {"payload", "Leave"}};
  const json lists = {{"active", {alert("a1")}},
                      {"accepted", json::array()},
                      {"expired", {alert("a3")}},
                      {"cancelled", {alert("a4")}}};
  auto noExpired = lists;
  noExpired.erase("expired");
  auto badAccepted = lists;
  badAccepted["accepted"] = {{{"alertId", "a2"}}};
  const auto templates = [](auto& s) { return outcome(s.alertTemplates()); };
  const auto unbounded = [](auto& s) { return outcome(s.alerts({}, {}, {})); };
  testing::runOperationTable<KelAlertsService>({
      {"templates", templates, frame("GET", "/alerts/templates", json::object()),
       Reply::withBody({{"alertTemplates", {tmpl}}}), json::array({tmpl})},
      {"templates missing", templates, frame("GET", "/alerts/templates", json::object()),
       Reply::withBody({tmpl}), kUndecodable},
      {"alerts", [](auto& s) { return outcome(s.alerts(60, std::nullopt, -5)); },
       frame("GET", "/alerts?acceptedSince=60000&expiredSince=-1", json::object()),
       Reply::withBody(lists), json::array({alert("a1"), alert("a3")})},
      {"alerts without expired", [](auto& s) { return outcome(s.alerts({}, 0, {})); },
       frame("GET", "/alerts?cancelledSince=0", json::object()), Reply::withBody(noExpired),
       kUndecodable},
      {"alerts, one list undecodable", unbounded, frame("GET", "/alerts", json::object()),
       Reply::withBody(badAccepted), kUndecodable},
      {"accept", [](auto& s) { return outcome(s.accept("a1")); },
       frame("POST", "/alerts/accept", {{"alertId", "a1"}}), Reply::withBody(json::object()),
       "completed"},
  });
  EXPECT_TRUE(log.contains("Decode error: "));
}

TEST(AlertsService, SendingMakesAFreshUpperCaseIdentifierPerAlert) {
  auto client = std::make_shared<FakeSocketClient>();
  auto service = std::make_shared<KelAlertsService>(SocketClientSlot{client});
  const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
  std::set<std::string> ids;
  for (int i = 0; i < 2; ++i) {
    client->queueReply(Reply::withBody(json::object()));
    EXPECT_EQ("completed", outcome(service->sendAlert({"t1", "Fire", "Leave"})));
    auto sent = client->lastRequest();
    const auto id = sent["body"]["alertId"].get<std::string>();
    EXPECT_TRUE(std::regex_match(id, uuid)) << id;
    ids.insert(id);
    sent["body"].erase("alertId");
    sent.erase("id");
    EXPECT_EQ(frame("POST", "/alerts", {{"templateId", "t1"}}), sent);
  }
  EXPECT_EQ(2u, ids.size());
}

}  // namespace
}  // namespace kel
