// The socket protocol where only the emulator's own tests look: authentication and its time
// limit, what the emulator keeps and logs, whom events reach, pings, and request faults. The
// library's integration tests cover the usual exchange and the faults of the connection.

#include <atomic>
#include <chrono>
#include <mutex>
#include <vector>

#include "ServerClient/Socket/Model/ErrorCode.h"
#include "ServerClient/Socket/Model/SocketMessage.h"
#include "integration/emulator/EmulatorTestFixture.h"

namespace kel::emulator::test {
namespace {

TEST_F(EmulatorTest, SocketsThatDoNotAuthenticateInTimeAreClosedWith4408) {
  start({.authTimeout = 200ms});
  auto authenticated = connectAs(aliceToken_);
  auto silent = connect();
  silent->send("hello");  // anything but a valid AUTH leaves the clock running
  EXPECT_EQ(platform::socketCloseCodeFrom(kAuthTimeoutCloseCode), silent->end());
  EXPECT_EQ(1u, emulator().counters().authTimeouts);
  // The authenticated socket's time ran out first, and it is still served.
  EXPECT_EQ(200, authenticated->request("GET", "/echo").at("status"));
}

TEST_F(EmulatorTest, SocketsWithoutAValidSessionAreAnswered401AndWhatTheySendIsNotKept) {
  auto refused = connect();
  refused->send("AUTH wrong-token");
  EXPECT_EQ(platform::socketCloseCodeFrom(kInvalidTokenCloseCode), refused->end());
  // The first sub-protocol offered is the one answered; the upgrade's cookies are kept.
  auto client = connect({.protocols = {"chat", "superchat"}, .cookie = "a=1; theme=\"dark\""});
  const auto info = emulator().socket(lastSocket_);
  EXPECT_EQ("chat", info->subprotocol);
  EXPECT_EQ((HeaderFields{{"a", "1"}, {"theme", "dark"}}), info->cookies);

  client->send("not a request");
  const auto early = client->request("GET", "/echo");
  EXPECT_EQ(401, errorCode(early)) << early;
  EXPECT_TRUE(emulator().receivedFrames().empty());
  client->send("AUTH " + aliceToken_);
  EXPECT_EQ(200, client->request("GET", "/echo").at("status"));
  emulator().expireSession(aliceToken_);
  EXPECT_EQ(401, client->request("GET", "/echo").at("status"));
}

TEST_F(EmulatorTest, WhatClientsSendIsKeptWithinBounds) {
  start({.frameLogLimit = 3,
         .frameLogBytes = 80,
         .recordedPayloadBytes = 40,
         .signInAttemptLimit = 2,
         .signInAttemptBytes = 1000});
  auto client = connectAs(aliceToken_);
  for (const auto& text : {"one", "two", "three"}) client->send(text);
  client->send(std::string(60, 'L'));
  ASSERT_TRUE(emulator().waitUntil(
      [&] { return emulator().socket(lastSocket_)->framesReceived == 5; }, kWait));
  // By count: the last three, the long one cut to 40 bytes and marked.
  auto frames = emulator().receivedFrames();
  ASSERT_EQ(3u, frames.size());
  EXPECT_EQ("two", frames[0].data);
  EXPECT_EQ(FrameKind::malformed, frames[1].kind);
  EXPECT_EQ(std::string(40, 'L'), frames[2].data);
  EXPECT_EQ(60u, frames[2].size);
  EXPECT_TRUE(frames[2].truncated());
  // By bytes: 80 at most, the oldest forgotten first.
  client->send(std::string(70, 'M'));
  client->send("end");
  ASSERT_TRUE(emulator().waitUntil(
      [&] { return emulator().socket(lastSocket_)->framesReceived == 7; }, kWait));
  frames = emulator().receivedFrames();
  ASSERT_EQ(2u, frames.size());
  EXPECT_EQ(std::string(40, 'M'), frames[0].data);
  EXPECT_EQ("end", frames[1].data);
  // None of those was a request: each was counted, none answered, and the socket stayed open.
  const auto id = client->sendRequest("GET", "/echo");
  EXPECT_EQ(id, client->nextObject().at("id"));
  EXPECT_EQ(6u, emulator().socket(lastSocket_)->malformedFrames);

  // Sign-in attempts: the last two, a context too long to keep left out and marked.
  for (const auto& context :
       {json{{"n", 1}}, json{{"n", 2}}, json{{"pad", std::string(60, 'p')}}}) {
    HttpRequest login;
    login.body = json{{"token", "x"}, {"context", context}}.dump();
    emulator().signIn().handleLogin(login);
  }
  const auto attempts = emulator().signIn().attempts();
  ASSERT_EQ(2u, attempts.size());
  EXPECT_EQ((json{{"n", 2}}), attempts[0].context);
  EXPECT_TRUE(attempts[1].bodyTruncated);
  EXPECT_TRUE(attempts[1].context.is_null());
}

TEST_F(EmulatorTest, LogLinesEscapeControlCharactersAndNeverHoldAWholeToken) {
  std::mutex mutex;
  std::vector<std::string> lines;
  start({.log =
             [&](std::string_view line) {
               std::lock_guard lock(mutex);
               lines.emplace_back(line);
             },
         .logFrames = true});
  auto client = connectAs(aliceToken_);
  client->send("forged\n12:00:00 kel-emulator: socket 9 authenticated as root\x1b[2J\a\r\x7f");
  client->request("POST", "/echo", {{"token", aliceToken_}, {"note", "a\nb"}});
  emulator().stop();

  std::lock_guard lock(mutex);
  bool sawEscapedNewline = false;
  for (const auto& line : lines) {
    for (const char c : line) {
      EXPECT_FALSE(static_cast<unsigned char>(c) < 0x20 || c == 0x7f) << line;
    }
    EXPECT_EQ(std::string::npos, line.find(aliceToken_)) << line;
    sawEscapedNewline = sawEscapedNewline || line.find("forged\\n12:00") != std::string::npos;
  }
  EXPECT_TRUE(sawEscapedNewline);
}

TEST_F(EmulatorTest, EventsReachTheSocketsOfTheChosenUserSessionOrSocket) {
  const auto aliceSecondToken = emulator().createSession("alice");
  auto alice1 = connectAs(aliceToken_);
  const auto alice1Id = lastSocket_;
  auto alice2 = connectAs(aliceSecondToken);
  auto bob = connectAs(bobToken_);
  auto anonymous = connect();  // not among the recipients of any of these

  EXPECT_EQ(2u, emulator().pushEvent(Recipients::user("alice"), "/presence", "PUT", {{"s", 1}}));
  EXPECT_EQ(1u, emulator().pushEvent(Recipients::session(aliceSecondToken), "/alerts", "POST", {}));
  EXPECT_EQ(1u, emulator().pushEvent(Recipients::socket(alice1Id), "/meetings/1", "DELETE", {}));
  EXPECT_EQ(3u, emulator().pushEvent(Recipients::all(), "/conferences", "PUT", {}));
  EXPECT_EQ((json{{"path", "/presence"}, {"method", "PUT"}, {"body", {{"s", 1}}}}),
            alice1->nextObject());
  // Each socket's next frames are exactly the events meant for it, in order.
  for (const auto& [client, paths] :
       {std::pair{alice1.get(), std::vector<std::string>{"/meetings/1", "/conferences"}},
        {alice2.get(), {"/presence", "/alerts", "/conferences"}},
        {bob.get(), {"/conferences"}}}) {
    for (const auto& path : paths) EXPECT_EQ(path, client->nextObject().at("path"));
  }
}

TEST_F(EmulatorTest, PingsGoOutAtTheConfiguredPeriodAndPongsAreCounted) {
  start({.pingPeriod = 20ms});
  auto client = connect();
  EXPECT_EQ(SocketMessage::Kind::ping, SocketMessage::create(client->next()).kind());
  client->socket().sendPong();
  EXPECT_TRUE(emulator().waitUntil(
      [&] { return emulator().socket(lastSocket_)->pongsReceived == 1; }, kWait));
}

// --- Faults ----------------------------------------------------------------------------

TEST_F(EmulatorTest, DelayedAnswersLetLaterRequestsOvertakeThem) {
  auto client = connectAs(aliceToken_);
  emulator().faultNextRequests(1, Fault::delay(300ms));
  const auto started = std::chrono::steady_clock::now();
  const auto delayed = client->sendRequest("POST", "/echo", {{"n", 1}});
  const auto prompt = client->sendRequest("POST", "/echo", {{"n", 2}});
  EXPECT_EQ(prompt, client->nextObject().at("id"));
  auto late = client->nextObject();
  EXPECT_EQ(delayed, late.at("id"));
  EXPECT_EQ((json{{"n", 1}}), late.at("body"));
  EXPECT_GE(std::chrono::steady_clock::now() - started, 300ms);
}

TEST_F(EmulatorTest, FaultsAnswerInsteadOfTheHandlerForTheRequestsTheyMatch) {
  std::atomic<int> calls = 0;
  emulator().resources().route("GET", "/presence", [&](const ResourceRequest&) {
    ++calls;
    return Reply::ok({{"from", "handler"}});
  });
  auto target = connectAs(aliceToken_);
  const auto targetId = lastSocket_;
  auto bystander = connectAs(bobToken_);
  // Counted faults are used up in the order they were armed.
  emulator().faultNextRequests(1, Fault::status(503, {{"from", "fault"}}));
  emulator().faultNextRequests(1, Fault::errorCode(42));
  EXPECT_EQ((json{{"from", "fault"}}), target->request("GET", "/presence").at("body"));
  const auto coded = target->request("GET", "/presence");
  EXPECT_EQ(42, errorCode(coded)) << coded;
  EXPECT_EQ((json{{"from", "handler"}}), target->request("GET", "/presence").at("body"));
  EXPECT_EQ(1, calls);

  // A standing fault takes only the requests of its socket, method and path.
  emulator().faultAllRequests(Fault::status(500),
                              {.socket = targetId, .method = "post", .pathPrefix = "/echo"});
  for (int i = 0; i < 2; ++i) EXPECT_EQ(500, target->request("POST", "/echo?x").at("status"));
  EXPECT_EQ(200, target->request("GET", "/echo").at("status"));
  EXPECT_EQ(404, target->request("POST", "/other").at("status"));
  EXPECT_EQ(200, bystander->request("POST", "/echo").at("status"));
  emulator().clearFaults();
  EXPECT_EQ(200, target->request("POST", "/echo").at("status"));
}

TEST_F(EmulatorTest, AClosedListenerRefusesConnectionsForItsTimeOnly) {
  auto survivor = connectAs(aliceToken_);
  emulator().refuseConnections(200ms, RefusalMode::closeListener);
  EXPECT_FALSE(canConnect());
  ASSERT_TRUE(emulator().waitUntil([&] { return !emulator().isRefusingConnections(); }, kWait));
  EXPECT_TRUE(canConnect());
  EXPECT_EQ(200, survivor->request("GET", "/echo").at("status")) << "open sockets are unaffected";
}

}  // namespace
}  // namespace kel::emulator::test
