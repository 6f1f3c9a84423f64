// The emulator's sign-in routes and session resources (the kel program's tests drive the rest).

#include "integration/emulator/EmulatorTestFixture.h"

namespace kel::emulator::test {
namespace {

using nlohmann::json;

class EmulatorSignInTest : public EmulatorTest {
 protected:
  void SetUp() override {
    EmulatorTest::SetUp();
    auto carol = defaultAccount("carol", "carol-outside");
    carol.capabilities = {{"domain", {"chat"}}, {"user", {"-video-call"}}};
    emulator().addAccount(carol);
  }

  platform::HTTPResponse login(const std::string& path, std::string_view token) {
    return httpRequest(urls_.kelURL, "POST", path,
                       json{{"token", token}, {"context", {{"platform", "Linux"}}}}.dump());
  }
};

TEST_F(EmulatorSignInTest, LoginCreatesASessionThatAuthenticatesTheSocketAndCanBeResumed) {
  const auto answer = login("/login", "carol-outside");
  ASSERT_EQ(200, answer.statusCode) << answer.body;
  const auto data = json::parse(answer.body);
  const auto token = data.at("access_token").get<std::string>();
  const auto sessionId = data.at("session").at("id").get<std::string>();
  EXPECT_EQ(data.at("credential").at("id"), data.at("session").at("registered"));
  EXPECT_EQ((json{{"domain", {"chat"}}, {"user", {"-video-call"}}}), data.at("capabilities"));
  EXPECT_EQ("KELSESSIONID=" + sessionId + "; Path=/; HttpOnly", answer.value("Set-Cookie"));
  connectAs(token);
  // Resuming a session keeps it: no new one is made.
  ASSERT_EQ(200, login("/login/sessionToken", token).statusCode);
  EXPECT_EQ(1u, emulator().sessionStore().sessionsOf("carol").size());
}

TEST_F(EmulatorSignInTest, SessionsAreRenewedAndEndedOnlyByTheirOwner) {
  auto alice = connectAs(aliceToken_);
  const auto aliceSession = emulator().session(aliceToken_)->sessionId;
  const auto bobSession = emulator().session(bobToken_)->sessionId;

  EXPECT_EQ(200,
            alice->request("PUT", "/sessions/" + aliceSession, {{"registered", "credential-alice"}})
                .at("status"));
  EXPECT_EQ(404, alice->request("PUT", "/sessions/" + bobSession).at("status"));
  EXPECT_EQ(404, alice->request("DELETE", "/sessions/" + bobSession).at("status"));
  EXPECT_TRUE(emulator().session(bobToken_).has_value());

  // The answer comes before the close.
  EXPECT_EQ(200, alice->request("DELETE", "/sessions/" + aliceSession).at("status"));
  EXPECT_EQ(SocketCloseCode::normalClosure, alice->end());
  EXPECT_FALSE(emulator().session(aliceToken_).has_value());
}

}  // namespace
}  // namespace kel::emulator::test
