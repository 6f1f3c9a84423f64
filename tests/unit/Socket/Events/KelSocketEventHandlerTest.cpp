#include "ServerClient/Socket/Events/KelSocketEventHandler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "ServerClient/platform/InMemorySocket.h"
#include "support/LogCapture.h"

namespace kel {
namespace {

using platform::InMemorySocket;
using platform::SocketCloseCode;
using Reason = SocketStateDisconnectedReason;

class KelSocketEventHandlerTest : public ::testing::Test {
 protected:
  KelSocketEventHandlerTest() {
    handler_->stateEventPublisher().subscribe(
        [this](const SocketState& s) { states_.push_back(s); });
    handler_->messageEventPublisher().subscribe(
        [this](const SocketMessage& m) { messages_.push_back(m); });
  }

  std::shared_ptr<InMemorySocket> socket_ =
      std::make_shared<InMemorySocket>(boost::urls::url("wss://kel.test/ws/kel"));
  std::shared_ptr<KelSocketEventHandler> handler_ = KelSocketEventHandler::create(socket_);
  std::vector<SocketState> states_;
  std::vector<SocketMessage> messages_;
};

TEST_F(KelSocketEventHandlerTest, CloseCodesMapToDisconnectReasons) {
  struct Case {
    SocketCloseCode code;
    Reason reason;
  };
  for (auto [code, reason] : {Case{SocketCloseCode::goingBackground, Reason::background},
                              Case{SocketCloseCode::normalClosure, Reason::expectedClose},
                              Case{SocketCloseCode::otherExpectedClosure, Reason::expectedClose},
                              Case{SocketCloseCode::abnormalClosure, Reason::lostConnection},
                              Case{SocketCloseCode::goingAway, Reason::lostConnection},
                              Case{platform::socketCloseCodeFrom(4321), Reason::lostConnection}}) {
    socket_->connect();
    socket_->close(code);
    EXPECT_EQ(SocketState::disconnected(reason), states_.back()) << platform::name(code);
    // The handler's own disconnect behaves exactly like the socket's report.
    handler_->disconnect(code);
    EXPECT_EQ(SocketState::disconnected(reason), states_.back());
  }
}

TEST_F(KelSocketEventHandlerTest, PingsArePongedAndOnlyResponsesAndEventsArePublished) {
  testing::LogCapture log;
  socket_->connect();
  socket_->receiveMessage("0");
  socket_->receiveMessage("0 anything");
  EXPECT_EQ(2u, socket_->pongCount());
  socket_->receiveMessage(R"(3{"id":7,"status":200,"body":{}})");
  socket_->receiveMessage(R"(3{"path":"/presence","method":"PUT","body":{}})");
  socket_->receiveMessage("3not json");
  socket_->receiveMessage(R"(3{"path":"/x","method":"PUT","body":{"token":"MARK"}})");
  socket_->receiveMessage("AUTH MARK");
  socket_->receiveData("\x01\x02");
  socket_->receiveError(std::make_exception_ptr(std::runtime_error("broken pipe")));
  ASSERT_EQ(3u, messages_.size());
  EXPECT_EQ(7, messages_[0].asResponse()->id);
  EXPECT_EQ(SocketMessage::Kind::event, messages_[1].kind());
  EXPECT_EQ(SocketState::connected(), states_.back()) << "errors and junk leave the state alone";

  socket_->receiveMessage(R"({"kapiId":"k-1"})");
  EXPECT_EQ(SocketState::authenticated(), states_.back());
  EXPECT_EQ(3u, messages_.size());
  std::vector<SocketState> late;
  handler_->stateEventPublisher().subscribe([&](const SocketState& s) { late.push_back(s); });
  EXPECT_EQ(std::vector{SocketState::authenticated()}, late) << "the current state first";

  EXPECT_TRUE(log.contains("]: Unknown message received: 3not json"));
  EXPECT_TRUE(log.contains("]: KelSocket: Error broken pipe"));
  EXPECT_FALSE(log.contains("MARK"));
}

TEST_F(KelSocketEventHandlerTest, RecordsTheLastFailureUntilTheSocketOpensAgain) {
  EXPECT_EQ(std::nullopt, handler_->lastFailure());
  socket_->connect();
  // As the WebSocket reports a close frame with its reason.
  handler_->socketDidClose(platform::socketCloseCodeFrom(4401), "invalid session token");
  EXPECT_EQ("the socket was closed with 4401 (invalid session token)",
            handler_->lastFailure().value().description());
  socket_->close(SocketCloseCode::protocolError);
  EXPECT_EQ("the socket was closed with 1002 (protocolError)",
            handler_->lastFailure().value().description());

  socket_->connect();
  EXPECT_EQ(std::nullopt, handler_->lastFailure());
  // The error says more than the close code that follows it.
  socket_->receiveError(std::make_exception_ptr(std::runtime_error("certificate verify failed")));
  socket_->close(SocketCloseCode::tlsHandshakeFailure);
  const SocketFailure certificate{std::nullopt, "certificate verify failed"};
  EXPECT_EQ(certificate, handler_->lastFailure());

  // The user's own close is no failure; a server's reason shows no secret.
  handler_->setStopByUser([] { return StopByUserState{true, SocketCloseCode::normalClosure}; });
  handler_->disconnect(SocketCloseCode::normalClosure);
  EXPECT_EQ(certificate, handler_->lastFailure());
  handler_->setStopByUser({});
  handler_->socketDidClose(SocketCloseCode::policyViolation, "token=MARK");
  EXPECT_EQ("the socket was closed with 1008 (token=<redacted>)",
            handler_->lastFailure().value().description());
}

TEST(KelSocketEventHandlerConcurrency, ACloseRacingAUserDisconnectPublishesOneAtATime) {
  for (int round = 0; round < 50; ++round) {
    auto socket = std::make_shared<InMemorySocket>(boost::urls::url("ws://127.0.0.1:1/kel"));
    auto handler = KelSocketEventHandler::create(socket);
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::atomic<int> states{0};
    handler->stateEventPublisher().subscribe([&](const SocketState&) {
      overlapped = overlapped || inside.fetch_add(1) != 0;
      states.fetch_add(1);
      inside.fetch_sub(1);
    });
    socket->connect();
    std::thread network([&] {
      for (int i = 0; i < 20; ++i) socket->receiveMessage(R"({"kapiId":"k"})");
      socket->close(SocketCloseCode::abnormalClosure);
    });
    for (int i = 0; i < 20; ++i) handler->disconnect(SocketCloseCode::normalClosure);
    network.join();
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(1 + 1 + 20 + 1 + 20, states.load());  // new, connected, acks, close, disconnects
  }
}

TEST(KelSocketEventHandlerLifetime, SocketHoldsItsDelegateWeakly) {
  auto socket = std::make_shared<InMemorySocket>(boost::urls::url("ws://127.0.0.1:1/kel"));
  std::weak_ptr<KelSocketEventHandler> weak = KelSocketEventHandler::create(socket);
  EXPECT_TRUE(weak.expired());
  socket->connect();  // a callback with nobody to receive it is dropped
}

}  // namespace
}  // namespace kel
