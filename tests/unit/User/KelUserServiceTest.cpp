#include "ServerClient/User/KelUserService.h"

#include <gtest/gtest.h>

#include "ServerClient/Common/Decoding.h"
#include "support/OperationTable.h"
#include "support/SignInAnswer.h"

namespace kel {
namespace {

using nlohmann::json;
using testing::frame;
using testing::outcome;
using Reply = testing::FakeSocketClient::Reply;

User localUser() {
  auto user = from<User>(testing::userRecord("u1").dump());
  user.gatewayUsername = "local-only";  // never sent
  user.alias = "Annie";
  return user;
}

TEST(KelUserService, EachOperationWritesItsFrameAndDecodesItsAnswer) {
  auto incomplete = testing::userRecord("u1");
  incomplete.erase("alias");
  auto annie = testing::userRecord("u1");
  annie["alias"] = "Annie";
  testing::runOperationTable<KelUserService>({
      {"user", [](auto& s) { return outcome(s.user("u 1")); },
       frame("GET", "/users/u 1", json::object()), Reply::withBody(testing::userRecord("u 1")),
       testing::userRecord("u 1")},
      {"user that does not decode",
       [](auto& s) { return outcome(s.user("u1")); },
       frame("GET", "/users/u1", json::object()),
       Reply::withBody(incomplete),
       {{"error", "generic/decoding"}}},
      {"update", [](auto& s) { return outcome(s.update(localUser())); },
       frame("PUT", "/users/u1", annie), Reply::withBody(annie), annie},
      {"capabilities",
       [](auto& s) {
         return outcome(
             s.fetchCapabilities().map([](const auto& c) { return c->active().back(); }));
       },
       frame("GET", "capabilities", json::object()),
       Reply::withBody({{"domain", {"presence"}}, {"user", {"+chat"}}}), "chat"},
  });
}

TEST(KelUserService, AUserThatCannotBeEncodedFailsWithoutSending) {
  auto client = std::make_shared<testing::FakeSocketClient>();
  KelUserService service{SocketClientSlot{client}};
  auto user = localUser();
  user.alias = "\xff\xfe";  // not UTF-8: no valid JSON text can carry it
  EXPECT_EQ((json{{"error", "generic/encoding"}}), outcome(service.update(user)));
  EXPECT_TRUE(client->requests().empty());
}

}  // namespace
}  // namespace kel
