// The socket protocol as a client meets it: upgrade, authentication, requests, routing, events,
// pings, what the emulator keeps and logs. Frames the emulator sends are checked with the
// library's own classification, so the emulator and the client agree on what each frame is.

#include <atomic>
#include <mutex>
#include <vector>

#include "ServerClient/Socket/Model/ErrorCode.h"
#include "ServerClient/Socket/Model/SocketMessage.h"
#include "integration/emulator/EmulatorTestFixture.h"

namespace kel::emulator::test {
namespace {

using nlohmann::json;

TEST_F(EmulatorTest, UpgradeIsAcceptedOnAnyPathEchoingTheOfferedSubprotocolAndKeepingCookies) {
  auto other =
      connect({.protocols = {"chat", "superchat"}, .cookie = "session=abc; theme=\"dark\""},
              "ws://127.0.0.1:" + std::to_string(urls_.port) + "/some/other?x=1");
  auto info = emulator().socket(lastSocket_);
  ASSERT_TRUE(info);
  EXPECT_EQ("chat", info->subprotocol);
  EXPECT_EQ("/some/other?x=1", info->path);
  EXPECT_EQ((HeaderFields{{"session", "abc"}, {"theme", "dark"}}), info->cookies);
  EXPECT_FALSE(info->authenticated);
}

TEST_F(EmulatorTest, SocketsThatDoNotAuthenticateInTimeAreClosedWith4408) {
  start({.authTimeout = 200ms});
  auto authenticated = connectAs(aliceToken_);
  const auto authenticatedId = lastSocket_;
  auto silent = connect();
  silent->send("hello");  // anything but a valid AUTH leaves the clock running
  EXPECT_EQ(platform::socketCloseCodeFrom(kAuthTimeoutCloseCode), silent->end());
  EXPECT_EQ(kAuthTimeoutCloseCode, waitClosed(lastSocket_)->closeCode);
  EXPECT_EQ(1u, emulator().counters().authTimeouts);
  // The authenticated socket's time ran out first, and it is still served.
  EXPECT_TRUE(emulator().socket(authenticatedId)->open);
  EXPECT_EQ(200, authenticated->request("GET", "/echo").at("status"));
}

TEST_F(EmulatorTest, RequestsBeforeAuthenticationAreAnswered401AndReachNoHandler) {
  std::atomic<int> calls = 0;
  emulator().resources().route("GET", "/counted", [&](const ResourceRequest&) {
    ++calls;
    return Reply::ok();
  });
  auto client = connect();
  auto early = client->request("GET", "/counted");
  EXPECT_EQ(401, early.at("status"));
  EXPECT_EQ(401, errorCode(early));
  EXPECT_EQ(0, calls);

  client->send("AUTH " + aliceToken_);
  EXPECT_EQ(200, client->request("GET", "/counted").at("status"));
  EXPECT_EQ(1, calls);
}

TEST_F(EmulatorTest, FramesThatAreNotRequestsAreCountedAndIgnoredWithoutClosingTheSocket) {
  auto client = connectAs(aliceToken_);
  const std::vector<std::string> malformed = {"hello", "", "2not json",
                                              R"(2{"id": "5", "path": "/echo", "method": "GET"})",
                                              R"(3{"id": 5, "status": 200})"};
  for (const auto& frame : malformed) client->send(frame);

  // None of them was answered: the next frame is the answer to this request.
  const auto id = client->sendRequest("GET", "/echo");
  EXPECT_EQ(id, client->nextObject().at("id"));

  const auto info = emulator().socket(lastSocket_);
  EXPECT_EQ(malformed.size(), info->malformedFrames);
  EXPECT_TRUE(info->open);
  EXPECT_EQ(FrameKind::malformed, emulator().receivedFrames(lastSocket_).at(1).kind);
}

TEST_F(EmulatorTest, WhatClientsSendIsKeptWithinBoundsAndNothingOfAnonymousSockets) {
  start({.frameLogLimit = 3,
         .frameLogBytes = 80,
         .recordedPayloadBytes = 40,
         .signInAttemptLimit = 2,
         .signInAttemptBytes = 1000});
  auto anonymous = connect();
  anonymous->send("AUTH wrong-token");
  EXPECT_TRUE(anonymous->end());
  auto other = connect();
  other->send(std::string(1000, 'x'));
  other->request("GET", "/echo");  // answered 401
  EXPECT_EQ(2u, emulator().socket(lastSocket_)->framesReceived);
  EXPECT_TRUE(emulator().receivedFrames().empty()) << "frames of sockets that never authenticated";

  auto client = connectAs(aliceToken_);
  for (const auto& text : {"one", "two", "three"}) client->send(text);
  client->send(std::string(60, 'L'));
  ASSERT_TRUE(emulator().waitUntil(
      [&] { return emulator().socket(lastSocket_)->framesReceived == 5; }, kWait));
  // By count: the last three, the long one cut to 40 bytes and marked.
  auto frames = emulator().receivedFrames();
  ASSERT_EQ(3u, frames.size());
  EXPECT_EQ("two", frames[0].data);
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

  // Sign-in attempts: the last two, a context too long to keep left out and marked.
  for (const auto& context :
       {json{{"n", 1}}, json{{"n", 2}}, json{{"pad", std::string(60, 'p')}}}) {
    httpRequest(urls_.kelURL, "POST", "/login", json{{"token", "x"}, {"context", context}}.dump());
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
  Options options;
  options.logFrames = true;
  options.log = [&](std::string_view line) {
    std::lock_guard lock(mutex);
    lines.emplace_back(line);
  };
  start(std::move(options));
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
  auto anonymous = connect();

  const json body = {{"status", "away"}};
  EXPECT_EQ(2u, emulator().pushEvent(Recipients::user("alice"), "/presence/alice", "PUT", body));
  for (auto* client : {alice1.get(), alice2.get()}) {
    EXPECT_EQ((json{{"path", "/presence/alice"}, {"method", "PUT"}, {"body", body}}),
              client->nextObject());
  }
  EXPECT_EQ(1u, emulator().pushEvent(Recipients::session(aliceSecondToken), "/alerts", "POST", {}));
  EXPECT_EQ(1u, emulator().pushEvent(Recipients::socket(alice1Id), "/meetings/1", "DELETE", {}));
  EXPECT_EQ(3u, emulator().pushEvent(Recipients::all(), "/conferences", "PUT", {}));

  // Each socket's next frames are exactly the events meant for it, in order.
  for (const auto& [client, paths] :
       {std::pair{alice1.get(), std::vector<std::string>{"/meetings/1", "/conferences"}},
        {alice2.get(), {"/alerts", "/conferences"}},
        {bob.get(), {"/conferences"}}}) {
    for (const auto& path : paths) EXPECT_EQ(path, client->nextObject().at("path"));
  }

  // An unauthenticated socket gets only what is sent to it by id.
  emulator().sendText(Recipients::socket(lastSocket_), "direct");
  EXPECT_EQ("direct", anonymous->next());
}

TEST_F(EmulatorTest, PingsGoOutAtTheConfiguredPeriodAndPongsAreCounted) {
  start({.pingPeriod = 20ms});
  auto client = connect();
  EXPECT_EQ(SocketMessage::Kind::ping, SocketMessage::create(client->next()).kind());
  client->socket().sendPong();
  EXPECT_TRUE(emulator().waitUntil(
      [&] { return emulator().socket(lastSocket_)->pongsReceived == 1; }, kWait));
  EXPECT_GE(emulator().socket(lastSocket_)->pingsSent, 1u);
}

}  // namespace
}  // namespace kel::emulator::test
