// Fault injection and session changes, as a client on the wire sees them.

#include <atomic>
#include <chrono>

#include "ServerClient/Socket/Model/ErrorCode.h"
#include "ServerClient/Socket/Model/SocketMessage.h"
#include "integration/emulator/EmulatorTestFixture.h"

namespace kel::emulator::test {
namespace {

using nlohmann::json;
using Kind = RecordingSocketDelegate::Kind;

TEST_F(EmulatorTest, SocketsEndAsAskedAndTheirEndIsRecorded) {
  auto dropped = connectAs(aliceToken_);
  const auto droppedId = lastSocket_;
  auto closed = connectAs(aliceToken_);
  const auto closedId = lastSocket_;
  auto leaving = connectAs(bobToken_);
  const auto leavingId = lastSocket_;

  EXPECT_EQ(1u, emulator().dropSockets(Recipients::socket(droppedId)));
  EXPECT_EQ(SocketCloseCode::abnormalClosure, dropped->end()) << "a drop sends no close frame";
  EXPECT_EQ(ClosedBy::dropped, waitClosed(droppedId)->closedBy);

  // A close comes after the frames queued before it.
  emulator().pushEvent(Recipients::socket(closedId), "/alerts", "POST", {});
  EXPECT_EQ(1u, emulator().closeSockets(Recipients::socket(closedId), 4000, "bye"));
  EXPECT_EQ(SocketMessage::Kind::event, SocketMessage::create(closed->next()).kind());
  EXPECT_EQ(platform::socketCloseCodeFrom(4000), closed->end());
  auto closedInfo = waitClosed(closedId);
  EXPECT_EQ(ClosedBy::server, closedInfo->closedBy);
  EXPECT_EQ(4000, closedInfo->closeCode);
  EXPECT_EQ("bye", closedInfo->closeReason);

  leaving->socket().disconnect(SocketCloseCode::goingBackground);
  auto leavingInfo = waitClosed(leavingId);
  EXPECT_EQ(ClosedBy::client, leavingInfo->closedBy);
  EXPECT_EQ(4001, leavingInfo->closeCode);
  EXPECT_EQ(0u, emulator().dropSockets(Recipients::all()));
}

TEST_F(EmulatorTest, DelayedAndWithheldAnswersLetLaterRequestsOvertakeThem) {
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

  emulator().faultNextRequests(1, Fault::withhold());
  const auto withheld = client->sendRequest("GET", "/echo");
  const auto next = client->sendRequest("GET", "/echo");
  EXPECT_EQ(next, client->nextObject().at("id"));
  EXPECT_NE(withheld, next);
  EXPECT_EQ(1u, emulator().socket(lastSocket_)->responsesWithheld);
  EXPECT_EQ(0u, emulator().armedFaults());
}

TEST_F(EmulatorTest, FailureFaultsAnswerInsteadOfTheHandlerForTheirCountOnly) {
  std::atomic<int> calls = 0;
  emulator().resources().route("GET", "/presence", [&](const ResourceRequest&) {
    ++calls;
    return Reply::ok({{"from", "handler"}});
  });
  auto client = connectAs(aliceToken_);
  emulator().faultNextRequests(2, Fault::status(503, {{"from", "fault"}}));
  emulator().faultNextRequests(1, Fault::errorCode(42));

  for (int i = 0; i < 2; ++i) {
    auto failed = client->request("GET", "/presence");
    EXPECT_EQ(503, failed.at("status"));
    EXPECT_EQ((json{{"from", "fault"}}), failed.at("body"));
  }
  auto coded = client->request("GET", "/presence");
  EXPECT_EQ(42, errorCode(coded)) << coded;
  EXPECT_EQ(0, calls);

  EXPECT_EQ((json{{"from", "handler"}}), client->request("GET", "/presence").at("body"));
  EXPECT_EQ(1, calls);
}

TEST_F(EmulatorTest, FaultFiltersTakeOnlyTheirSocketMethodAndPath) {
  auto target = connectAs(aliceToken_);
  const auto targetId = lastSocket_;
  auto bystander = connectAs(bobToken_);
  emulator().faultAllRequests(Fault::status(500),
                              {.socket = targetId, .method = "post", .pathPrefix = "/echo"});

  for (int i = 0; i < 3; ++i) EXPECT_EQ(500, target->request("POST", "/echo?x").at("status"));
  EXPECT_EQ(200, target->request("GET", "/echo").at("status"));
  EXPECT_EQ(404, target->request("POST", "/other").at("status"));
  EXPECT_EQ(200, bystander->request("POST", "/echo").at("status"));
  EXPECT_EQ(1u, emulator().armedFaults());

  emulator().clearFaults();
  EXPECT_EQ(200, target->request("POST", "/echo").at("status"));
}

TEST_F(EmulatorTest, SocketFaultsEndTheConnectionOnTheRequest) {
  auto dropped = connectAs(aliceToken_);
  emulator().faultNextRequests(1, Fault::dropSocket());
  dropped->sendRequest("GET", "/echo");
  EXPECT_EQ(SocketCloseCode::abnormalClosure, dropped->end());

  auto closed = connectAs(aliceToken_);
  emulator().faultNextRequests(1, Fault::closeSocket(1011, "internal"));
  closed->sendRequest("GET", "/echo");
  EXPECT_EQ(platform::socketCloseCodeFrom(1011), closed->end());
}

TEST_F(EmulatorTest, MalformedFramesReachTheClientAsTheirKindPromises) {
  auto client = connectAs(aliceToken_, {.maxMessageSize = 2 * kDefaultHugeFrameBytes});
  const auto id = lastSocket_;
  auto receive = [&](Malformed kind, std::size_t size = kDefaultHugeFrameBytes) {
    EXPECT_EQ(1u, emulator().sendMalformed(Recipients::socket(id), kind, size));
    return client->next();
  };
  auto kindOf = [](const std::string& frame) { return SocketMessage::create(frame).kind(); };

  EXPECT_EQ(SocketMessage::Kind::unknown, kindOf(receive(Malformed::notJson)));
  EXPECT_EQ("3", receive(Malformed::bareThree));
  auto list = SocketMessage::create(receive(Malformed::list));
  ASSERT_EQ(SocketMessage::Kind::event, list.kind());
  EXPECT_EQ(json::object(), list.asEvent()->json);
  EXPECT_EQ(SocketMessage::Kind::unknown, kindOf(receive(Malformed::scalar)));
  EXPECT_EQ(SocketMessage::Kind::event, kindOf(receive(Malformed::stringId)));
  EXPECT_EQ("", receive(Malformed::empty));
  auto small = receive(Malformed::huge, 100'000);
  EXPECT_EQ(100'000u, small.size());
  EXPECT_EQ(SocketMessage::Kind::event, kindOf(small));
  auto huge = receive(Malformed::huge);
  EXPECT_EQ(kDefaultHugeFrameBytes, huge.size());
  EXPECT_EQ(SocketMessage::Kind::event, kindOf(huge));
  emulator().sendMalformed(Recipients::socket(id), Malformed::binary);
  EXPECT_TRUE(client->delegate().waitFor(Kind::data));

  // A response replaced by a malformed frame, then the socket serves on.
  emulator().faultNextRequests(1, Fault::malformedResponse(Malformed::notJson));
  client->sendRequest("GET", "/echo");
  EXPECT_EQ(SocketMessage::Kind::unknown, kindOf(client->next()));
  EXPECT_EQ(200, client->request("GET", "/echo").at("status"));

  // Not UTF-8 in a text frame: the client's WebSocket layer must refuse it.
  emulator().sendMalformed(Recipients::socket(id), Malformed::invalidUtf8);
  EXPECT_EQ(SocketCloseCode::invalidFramePayloadData, client->end());
}

TEST_F(EmulatorTest, RefusedConnectionsFailUntilTheEmulatorAcceptsAgain) {
  auto survivor = connectAs(aliceToken_);

  emulator().refuseConnections();
  EXPECT_TRUE(emulator().isRefusingConnections());
  EXPECT_FALSE(canConnect());
  EXPECT_FALSE(canConnect());
  EXPECT_EQ(2u, emulator().counters().connectionsRefused);
  EXPECT_EQ(200, survivor->request("GET", "/echo").at("status")) << "open sockets are unaffected";
  emulator().acceptConnections();
  ASSERT_TRUE(emulator().waitUntil([&] { return !emulator().isRefusingConnections(); }, kWait));
  EXPECT_TRUE(canConnect());

  emulator().refuseConnections(200ms, RefusalMode::closeListener);
  EXPECT_FALSE(canConnect());
  ASSERT_TRUE(emulator().waitUntil([&] { return !emulator().isRefusingConnections(); }, kWait));
  EXPECT_TRUE(canConnect());
  EXPECT_TRUE(emulator().isRunning());
}

TEST_F(EmulatorTest, EndedSessionsCloseTheirSocketsAndExpiredOnesStopServing) {
  const auto secondToken = emulator().createSession("alice");
  auto ending = connectAs(aliceToken_);
  auto expiring = connectAs(secondToken);

  EXPECT_TRUE(emulator().endSession(aliceToken_));
  EXPECT_EQ(SocketCloseCode::normalClosure, ending->end());
  EXPECT_FALSE(emulator().session(aliceToken_));
  EXPECT_FALSE(emulator().endSession(aliceToken_));
  auto again = connect();
  again->send("AUTH " + aliceToken_);
  EXPECT_EQ(platform::socketCloseCodeFrom(kInvalidTokenCloseCode), again->end());

  EXPECT_TRUE(emulator().expireSession(secondToken));
  EXPECT_EQ(401, expiring->request("GET", "/echo").at("status"));
  EXPECT_TRUE(emulator().sessionStore().renewSession(secondToken));
  EXPECT_EQ(200, expiring->request("GET", "/echo").at("status"));
}

}  // namespace
}  // namespace kel::emulator::test
