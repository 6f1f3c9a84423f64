// The emulator's sign-in routes and the account resources on its socket.

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
  EXPECT_EQ("Bearer", data.at("token_type"));
  EXPECT_EQ(token, data.at("session").at("token"));
  EXPECT_EQ("carol", data.at("session").at("userObj").at("id"));
  EXPECT_EQ(data.at("credential").at("id"), data.at("session").at("registered"));
  EXPECT_EQ((json{{"domain", {"chat"}}, {"user", {"-video-call"}}}), data.at("capabilities"));
  EXPECT_EQ("KELSESSIONID=" + sessionId + "; Path=/; HttpOnly", answer.value("Set-Cookie"));
  ASSERT_TRUE(emulator().session(token).has_value());
  EXPECT_EQ(sessionId, emulator().session(token)->sessionId);

  const auto attempts = emulator().signIn().attempts();
  ASSERT_EQ(1u, attempts.size());
  EXPECT_EQ((json{{"platform", "Linux"}}), attempts[0].context);

  connectAs(token);

  const auto resumed = login("/login/sessionToken", token);
  ASSERT_EQ(200, resumed.statusCode) << resumed.body;
  EXPECT_EQ(sessionId, json::parse(resumed.body).at("session").at("id"));
  // Resuming a session keeps it: no new one is made.
  EXPECT_EQ(1u, emulator().sessionStore().sessionsOf("carol").size());
}

TEST_F(EmulatorSignInTest, RefusedTokensAndShapedAnswers) {
  EXPECT_EQ(401, login("/login", "nobody").statusCode);
  EXPECT_EQ(401,
            login("/login", aliceToken_).statusCode);  // a session token is not a sign-in token
  EXPECT_EQ(401, login("/login/sessionToken", "carol-outside").statusCode);
  EXPECT_EQ(401, httpRequest(urls_.kelURL, "POST", "/login", "not json").statusCode);
  emulator().expireSession(bobToken_);
  EXPECT_EQ(401, login("/login/sessionToken", bobToken_).statusCode);

  emulator().signIn().setRejection(SignInRejection::wrongCredentials());
  const auto wrong = login("/login", "nobody");
  EXPECT_EQ(500, wrong.statusCode);
  EXPECT_EQ("Wrong credentials", json::parse(wrong.body).at("type"));

  emulator().signIn().setAnswer({.status = 500, .omitKeys = {"credential"}});
  const auto shaped = login("/login", "carol-outside");
  EXPECT_EQ(500, shaped.statusCode);
  const auto data = json::parse(shaped.body);
  EXPECT_FALSE(data.contains("credential"));
  EXPECT_TRUE(data.contains("capabilities"));

  emulator().signIn().setAnswer({.rawBody = "<html>maintenance</html>"});
  EXPECT_EQ("<html>maintenance</html>", login("/login", "carol-outside").body);
}

TEST_F(EmulatorSignInTest, AccountResourcesOverTheSocket) {
  auto alice = connectAs(aliceToken_);
  EXPECT_EQ(emulator().signIn().account("alice")->permissions,
            alice->request("GET", "/permissions").at("body"));
  EXPECT_EQ("carol", alice->request("GET", "/users/carol").at("body").at("id"));
  EXPECT_EQ(404, alice->request("GET", "/users/nobody").at("status"));

  EXPECT_EQ(403, alice->request("PUT", "/users/carol", {{"alias", "C"}}).at("status"));
  const auto updated = alice->request("PUT", "/users/alice", {{"alias", "Al"}, {"id", "x"}});
  EXPECT_EQ("Al", updated.at("body").at("alias"));
  EXPECT_EQ("alice", updated.at("body").at("id"));
  EXPECT_EQ("Al", emulator().signIn().account("alice")->user.at("alias"));

  const auto push = json{{"deviceId", "D1"},
                         {"tokenType", "apn"},
                         {"token", "T"},
                         {"options", {{"isProduction", false}}}};
  EXPECT_EQ(200, alice->request("POST", "/pushNotifications", push).at("status"));
  EXPECT_EQ(400, alice->request("POST", "/pushNotifications", {{"deviceId", "D2"}}).at("status"));
  auto registrations = emulator().signIn().pushRegistrations();
  ASSERT_EQ(1u, registrations.size());
  EXPECT_EQ("alice", registrations[0].userId);
  EXPECT_FALSE(registrations[0].isProduction);
  EXPECT_EQ(200, alice->request("DELETE", "/pushNotifications", {{"deviceId", "D1"}}).at("status"));
  EXPECT_TRUE(emulator().signIn().pushRegistrations().empty());
}

TEST_F(EmulatorSignInTest, SessionsAreRenewedAndEndedOnlyByTheirOwner) {
  auto alice = connectAs(aliceToken_);
  const auto aliceSession = emulator().session(aliceToken_)->sessionId;
  const auto bobSession = emulator().session(bobToken_)->sessionId;

  emulator().expireSession(aliceToken_);
  // An expired session's socket is refused everything, renewal included.
  EXPECT_EQ(401, alice->request("PUT", "/sessions/" + aliceSession).at("status"));
  emulator().sessionStore().renewSession(aliceToken_);
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
