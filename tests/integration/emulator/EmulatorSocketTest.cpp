// The socket protocol as a client meets it: upgrade, authentication, requests, routing, events,
// pings. Frames the emulator sends are checked with the library's own classification, so the
// emulator and the client agree on what each frame is.

#include <atomic>
#include <future>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "ServerClient/Socket/Model/ErrorCode.h"
#include "ServerClient/Socket/Model/SocketMessage.h"
#include "integration/emulator/EmulatorTestFixture.h"

namespace kel::emulator::test {
namespace {

using nlohmann::json;

TEST_F(EmulatorTest, UpgradeIsAcceptedOnAnyPathEchoingTheOfferedSubprotocolAndKeepingCookies) {
  auto standard = connect();
  EXPECT_EQ("websocket", standard->acceptedSubprotocol());
  EXPECT_EQ("/kel/websocket", emulator().socket(lastSocket_)->path);

  auto other = connect({.subprotocol = "chat, superchat", .cookie = "session=abc; theme=\"dark\""},
                       "ws://127.0.0.1:" + std::to_string(urls_.port) + "/some/other?x=1");
  EXPECT_EQ("chat", other->acceptedSubprotocol());
  auto info = emulator().socket(lastSocket_);
  ASSERT_TRUE(info);
  EXPECT_EQ("/some/other?x=1", info->path);
  EXPECT_EQ((HeaderFields{{"session", "abc"}, {"theme", "dark"}}), info->cookies);
  EXPECT_TRUE(info->open);
  EXPECT_FALSE(info->authenticated);

  auto none = connect({.subprotocol = ""});
  EXPECT_EQ("", none->acceptedSubprotocol());
}

TEST_F(EmulatorTest, ValidTokenIsAcknowledgedAndBindsTheSocketToTheSessionsUser) {
  auto client = connect();
  auto ack = client->authenticate(aliceToken_);
  EXPECT_EQ(SocketMessage::Kind::auth, SocketMessage::create(ack.data).kind()) << ack.data;

  // Recorded before the acknowledgement went out: no waiting needed.
  auto info = emulator().socket(lastSocket_);
  ASSERT_TRUE(info);
  EXPECT_TRUE(info->authenticated);
  EXPECT_EQ("alice", info->userId);
  EXPECT_EQ(aliceToken_, info->sessionToken);
  EXPECT_EQ(emulator().session(aliceToken_)->sessionId, info->sessionId);
  EXPECT_EQ(json::parse(ack.data).at("kapiId"), info->kapiId);
  EXPECT_EQ(1u, emulator().counters().authSuccesses);
}

TEST_F(EmulatorTest, UnknownAndExpiredTokensCloseTheSocketWith4401) {
  auto unknown = connect();
  unknown->sendText("AUTH not-a-token");
  EXPECT_EQ(kInvalidTokenCloseCode, unknown->read().closeCode);

  emulator().expireSession(bobToken_);
  auto expired = connect();
  expired->sendText("AUTH " + bobToken_);
  EXPECT_EQ(kInvalidTokenCloseCode, expired->read().closeCode);

  auto closed = emulator().waitForSocket(
      [&](const SocketInfo& s) { return s.id == lastSocket_ && !s.open; }, kWait);
  ASSERT_TRUE(closed);
  EXPECT_EQ(ClosedBy::server, closed->closedBy);
  EXPECT_EQ(kInvalidTokenCloseCode, closed->closeCode);
  EXPECT_EQ(2u, emulator().counters().authFailures);
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

  client->authenticate(aliceToken_);
  EXPECT_EQ(200, client->request("GET", "/counted").at("status"));
  EXPECT_EQ(1, calls);
}

TEST_F(EmulatorTest, EchoAnswersTheRequestsIdWithItsBodyAsAResponseTheClientRecognises) {
  auto client = connectAs(aliceToken_);
  const json body = {
      {"text", "grüße ✓"}, {"list", {1, 2.5, nullptr, true}}, {"nested", {{"a", {}}}}};
  const auto id = client->sendRequest("PUT", "/echo", body);
  auto frame = client->nextFrame();
  auto message = SocketMessage::create(frame.data);
  ASSERT_EQ(SocketMessage::Kind::response, message.kind()) << frame.data;
  EXPECT_EQ(id, message.asResponse()->id);
  EXPECT_EQ(200, message.asResponse()->json.at("status"));
  EXPECT_EQ(body, message.asResponse()->json.at("body"));
  EXPECT_FALSE(errorCode(message.asResponse()->json));

  // A request without "body" is read as one with an empty object.
  client->sendText(R"(2{"id": 77, "path": "/echo", "method": "GET"})");
  EXPECT_EQ(json::object(), client->awaitResponse(77).at("body"));
}

TEST_F(EmulatorTest, RoutesReceivePathParametersTheRestAndTheDecodedQuery) {
  emulator().resources().route("GET", "/sessions", [](const ResourceRequest& r) {
    return Reply::ok(
        {{"rest", r.rest}, {"q", r.queryValue("q").value_or("-")}, {"user", r.userId}});
  });
  emulator().resources().route("DELETE", "/users/:userId/contacts", [](const ResourceRequest& r) {
    return Reply::withStatus(204, {{"userId", *r.param("userId")}, {"rest", r.rest}});
  });
  emulator().resources().route(
      "*", "/broken", [](const ResourceRequest&) -> Reply { throw std::runtime_error("boom"); });
  auto client = connectAs(aliceToken_);

  auto collection = client->request("GET", "/sessions/abc?q=two+words%21");
  EXPECT_EQ((json{{"rest", "abc"}, {"q", "two words!"}, {"user", "alice"}}), collection.at("body"));
  auto nested = client->request("DELETE", "/users/u%201/contacts/c9");
  EXPECT_EQ(204, nested.at("status"));
  EXPECT_EQ((json{{"userId", "u 1"}, {"rest", "c9"}}), nested.at("body"));

  EXPECT_EQ(404, client->request("GET", "/nowhere").at("status"));
  EXPECT_EQ(405, client->request("POST", "/sessions").at("status"));
  EXPECT_EQ(500, client->request("GET", "/broken").at("status"));
  EXPECT_EQ(404, client->request("GET", "no-leading-slash").at("status"));
}

TEST_F(EmulatorTest, AsynchronousHandlersAnswerFromAnyThreadOnceOnly) {
  std::promise<Responder> handed;
  emulator().resources().routeAsync(
      "POST", "/later", [&](ResourceRequest, Responder responder) { handed.set_value(responder); });
  auto client = connectAs(aliceToken_);
  const auto id = client->sendRequest("POST", "/later");
  auto future = handed.get_future();
  ASSERT_EQ(std::future_status::ready, future.wait_for(kWait));
  auto responder = future.get();
  EXPECT_EQ(id, responder.requestId());
  EXPECT_FALSE(responder.answered());

  std::thread other([&] { EXPECT_TRUE(responder.respond(Reply::ok({{"done", true}}))); });
  other.join();
  EXPECT_FALSE(responder.respond(Reply::withStatus(500)));
  EXPECT_EQ((json{{"done", true}}), client->awaitResponse(id).at("body"));
  // The second answer was not sent: the next frame is the answer to the next request.
  EXPECT_EQ(200, client->request("GET", "/echo").at("status"));
}

TEST_F(EmulatorTest, ManyPipelinedRequestsAreEachAnsweredOnce) {
  auto client = connectAs(aliceToken_);
  constexpr int kRequests = 2000;
  for (int i = 0; i < kRequests; ++i) client->sendRequest("POST", "/echo", {{"n", i}});
  std::set<std::int64_t> answered;
  for (int i = 0; i < kRequests; ++i) {
    auto response = responseObject(client->nextFrame());
    const auto id = response.at("id").get<std::int64_t>();
    EXPECT_EQ(id - 1, response.at("body").at("n")) << "answer mixed up with another request";
    answered.insert(id);
  }
  EXPECT_EQ(static_cast<std::size_t>(kRequests), answered.size());
  EXPECT_EQ(static_cast<std::uint64_t>(kRequests),
            emulator().socket(lastSocket_)->requestsReceived);
}

TEST_F(EmulatorTest, FramesThatAreNotRequestsAreCountedAndIgnoredWithoutClosingTheSocket) {
  auto client = connectAs(aliceToken_);
  const std::vector<std::string> malformed = {
      "hello",
      "",
      "2not json",
      "2[]",
      R"(2{"id": "5", "path": "/echo", "method": "GET"})",
      R"(2{"id": 5.5, "path": "/echo", "method": "GET"})",
      R"(2{"path": "/echo", "method": "GET"})",
      R"(2{"id": 5, "path": 7, "method": "GET"})",
      "3"
      R"({"id": 5, "status": 200})",
  };
  for (const auto& frame : malformed) client->sendText(frame);
  client->sendBinary(R"(2{"id": 5, "path": "/echo", "method": "GET"})");

  // None of them was answered: the next frame is the answer to this request.
  const auto id = client->sendRequest("GET", "/echo");
  EXPECT_EQ(id, responseObject(client->nextFrame()).at("id"));

  const auto info = emulator().socket(lastSocket_);
  EXPECT_EQ(malformed.size() + 1, info->malformedFrames);
  EXPECT_EQ(malformed.size() + 1, emulator().counters().malformedFrames);
  EXPECT_TRUE(info->open);
  auto frames = emulator().receivedFrames(lastSocket_);
  ASSERT_EQ(malformed.size() + 3, frames.size());  // AUTH, the malformed ones, the request
  EXPECT_EQ(FrameKind::auth, frames.front().kind);
  EXPECT_TRUE(frames[malformed.size() + 1].binary);
  EXPECT_EQ(FrameKind::request, frames.back().kind);
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
    auto message = SocketMessage::create(client->nextFrame().data);
    ASSERT_EQ(SocketMessage::Kind::event, message.kind());
    EXPECT_EQ((json{{"path", "/presence/alice"}, {"method", "PUT"}, {"body", body}}),
              message.asEvent()->json);
  }
  EXPECT_EQ(1u, emulator().pushEvent(Recipients::session(aliceSecondToken), "/alerts", "POST", {}));
  EXPECT_EQ(1u, emulator().pushEvent(Recipients::socket(alice1Id), "/meetings/1", "DELETE", {}));
  EXPECT_EQ(3u, emulator().pushEvent(Recipients::all(), "/conferences", "PUT", {}));

  // Each socket's next frames are exactly the events meant for it, in order.
  auto pathOf = [](TestWebSocketClient& c) { return responseObject(c.nextFrame()).at("path"); };
  EXPECT_EQ("/meetings/1", pathOf(*alice1));
  EXPECT_EQ("/conferences", pathOf(*alice1));
  EXPECT_EQ("/alerts", pathOf(*alice2));
  EXPECT_EQ("/conferences", pathOf(*alice2));
  EXPECT_EQ("/conferences", pathOf(*bob));
  EXPECT_EQ(3u, emulator().socket(alice1Id)->eventsSent);

  // An unauthenticated socket gets only what is sent to it by id.
  emulator().sendText(Recipients::socket(lastSocket_), "direct");
  EXPECT_EQ("direct", anonymous->nextFrame().data);
}

TEST_F(EmulatorTest, PingsGoOutAtTheConfiguredPeriodAndPongsAreCounted) {
  start({.pingPeriod = std::chrono::milliseconds(20)});
  auto client = connect();
  auto first = client->read();
  ASSERT_TRUE(first.frame);
  EXPECT_EQ(SocketMessage::Kind::ping, SocketMessage::create(first.frame->data).kind());
  client->sendPong();
  EXPECT_TRUE(emulator().waitUntil(
      [&] { return emulator().socket(lastSocket_)->pongsReceived == 1; }, kWait));
  EXPECT_GE(emulator().socket(lastSocket_)->pingsSent, 1u);
}

TEST_F(EmulatorTest, ClientsOnSeveralNetworkThreadsAreServedConcurrently) {
  start({.threads = 2});
  constexpr int kClients = 4;
  constexpr int kRequests = 200;
  std::vector<std::thread> threads;
  std::atomic<int> answered = 0;
  for (int c = 0; c < kClients; ++c) {
    threads.emplace_back([&] {
      auto client = TestWebSocketClient::connect(urls_.socketURL);
      client->authenticate(aliceToken_);
      for (int i = 0; i < kRequests; ++i) {
        if (client->request("POST", "/echo", {{"i", i}}).at("body").at("i") == i) ++answered;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(kClients * kRequests, answered);
  EXPECT_EQ(static_cast<std::uint64_t>(kClients * kRequests), emulator().counters().requests);
}

}  // namespace
}  // namespace kel::emulator::test
