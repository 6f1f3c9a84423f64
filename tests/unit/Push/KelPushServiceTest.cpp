#include "ServerClient/Push/KelPushService.h"

#include <gtest/gtest.h>

#include "support/OperationTable.h"

namespace kel {
namespace {

using nlohmann::json;
using testing::frame;
using testing::outcome;
using Reply = testing::FakeSocketClient::Reply;

json tokenBody(bool production) {
  return {{"deviceId", "device-1"},
          {"tokenType", "apn"},
          {"token", "tok"},
          {"options", {{"isProduction", production}}}};
}

TEST(KelPushService, RegistersAndRemovesTheTokenOnOnePathAndPassesServerErrorsOn) {
  const auto forbidden = Reply::failure(makeError(ConnectionError::mapToOvError(403)));
  const auto remove = [](auto& s) { return outcome(s.deletePushToken("device-1")); };
  testing::runOperationTable<KelPushService>({
      {"register", [](auto& s) { return outcome(s.sendPushToken("tok", false, "device-1")); },
       frame("POST", "/pushNotifications", tokenBody(false)), Reply::withBody({{"ignored", 1}}),
       "unit"},
      {"register refused",
       [](auto& s) { return outcome(s.sendPushToken("tok", true, "device-1")); },
       frame("POST", "/pushNotifications", tokenBody(true)),
       forbidden,
       {{"error", "connection/forbidden"}}},
      {"remove", remove, frame("DELETE", "/pushNotifications", {{"deviceId", "device-1"}}),
       Reply::withBody({{"ignored", 1}}), "unit"},
      {"remove refused",
       remove,
       frame("DELETE", "/pushNotifications", {{"deviceId", "device-1"}}),
       forbidden,
       {{"error", "connection/forbidden"}}},
  });
}

}  // namespace
}  // namespace kel
