#include <gtest/gtest.h>

#include <regex>

#include "ServerClient/Alert/Service/KelAlertsService.h"
#include "support/LogCapture.h"
#include "support/OperationTable.h"

namespace kel {
namespace {

using nlohmann::json;
using testing::FakeSocketClient;
using testing::frame;
using testing::outcome;
using Reply = FakeSocketClient::Reply;

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
  testing::runOperationTable<KelAlertsService>({
      {"templates",
       [](auto& s) { return outcome(s.alertTemplates()); },
       frame("GET", "/alerts/templates", json::object()),
       Reply::withBody({{"alertTemplates", {tmpl}}}),
       {tmpl}},
      {"templates missing",
       [](auto& s) { return outcome(s.alertTemplates()); },
       frame("GET", "/alerts/templates", json::object()),
       Reply::withBody({tmpl}),
       {{"error", "generic/decoding"}}},
      {"alerts",
       [](auto& s) { return outcome(s.alerts(60, std::nullopt, -5)); },
       frame("GET", "/alerts?acceptedSince=60000&expiredSince=-1", json::object()),
       Reply::withBody(lists),
       {alert("a1"), alert("a3")}},
      {"alerts without bounds or expired",
       [](auto& s) { return outcome(s.alerts(std::nullopt, 0, std::nullopt)); },
       frame("GET", "/alerts?cancelledSince=0", json::object()),
       Reply::withBody(noExpired),
       {{"error", "generic/decoding"}}},
      {"alerts, one list undecodable",
       [](auto& s) { return outcome(s.alerts(std::nullopt, std::nullopt, std::nullopt)); },
       frame("GET", "/alerts", json::object()),
       Reply::withBody(badAccepted),
       {{"error", "generic/decoding"}}},
      {"accept", [](auto& s) { return outcome(s.accept("a1")); },
       frame("POST", "/alerts/accept", {{"alertId", "a1"}}), Reply::withBody(json::object()),
       "completed"},
  });
  EXPECT_TRUE(log.contains("Decode error: "));
}

TEST(AlertsService, SendingMakesAFreshUpperCaseIdentifierPerAlert) {
  auto client = std::make_shared<FakeSocketClient>();
  auto service = std::make_shared<KelAlertsService>(SocketClientSlot{client});
  const ServerAlertTemplate fire{"t1", "Fire", "Leave"};
  for (int i = 0; i < 2; ++i) {
    client->queueReply(Reply::withBody(json::object()));
    EXPECT_EQ("completed", outcome(service->sendAlert(fire)));
  }
  const auto requests = client->requests();
  ASSERT_EQ(2u, requests.size());
  const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
  for (const auto& request : requests) {
    EXPECT_EQ("POST", request["method"]);
    EXPECT_EQ("/alerts", request["path"]);
    EXPECT_EQ("t1", request["body"]["templateId"]);
    EXPECT_TRUE(std::regex_match(request["body"]["alertId"].get<std::string>(), uuid));
  }
  EXPECT_NE(requests[0]["body"]["alertId"], requests[1]["body"]["alertId"]);
}

}  // namespace
}  // namespace kel
