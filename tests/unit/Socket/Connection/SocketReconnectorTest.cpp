#include "ServerClient/Socket/SocketReconnector.h"

#include <gtest/gtest.h>

#include "ServerClient/Socket/Events/KelSocketEventHandler.h"
#include "ServerClient/platform/InMemorySocket.h"
#include "ServerClient/rx/TestScheduler.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using platform::InMemorySocket;

class SocketReconnectorTest : public ::testing::Test {
 protected:
  SocketReconnectorTest() {
    // The network is down: connections stay pending until the test opens them.
    socket_->setOptions({.openOnConnect = false});
  }

  std::size_t authFrames() const {
    std::size_t n = 0;
    for (const auto& text : socket_->sentTexts()) n += text.starts_with("AUTH ") ? 1 : 0;
    return n;
  }

  std::shared_ptr<rx::TestScheduler> scheduler_ = std::make_shared<rx::TestScheduler>();
  std::shared_ptr<InMemorySocket> socket_ =
      std::make_shared<InMemorySocket>(boost::urls::url("wss://kel.test/ws/kel"));
  std::shared_ptr<KelSocketEventHandler> handler_ = KelSocketEventHandler::create(socket_);
  std::shared_ptr<SocketReconnector> reconnector_ = SocketReconnector::create(
      socket_,
      std::make_shared<SocketConnector>(
          socket_, handler_, kConnectionTimeout,
          SocketConnector::Options{.connectionScheduler = scheduler_}),
      std::make_shared<SocketAuthenticator>(
          socket_, handler_, kConnectionTimeout,
          SocketAuthenticator::Options{.authenticationScheduler = scheduler_}),
      3s, SocketReconnector::Options{.reconnectionScheduler = scheduler_});
};

TEST_F(SocketReconnectorTest, TriesEveryPeriodWithOverlappingAttemptsWhileTheNetworkIsDown) {
  reconnector_->launchReconnection("tok");
  reconnector_->launchReconnection("ignored while reconnecting");
  EXPECT_TRUE(reconnector_->isReconnecting());
  scheduler_->advanceBy(2'999ms);
  EXPECT_EQ(0u, socket_->connectCount()) << "the first tick is one period after the launch";
  scheduler_->advanceBy(1ms);
  EXPECT_EQ(1u, socket_->connectCount());
  // Each attempt waits 20 s, yet a new one starts every 3 s: at 21 s the first is still waiting.
  scheduler_->advanceBy(18s);
  EXPECT_EQ(7u, socket_->connectCount());
  // Failed attempts are swallowed and the pulse goes on.
  scheduler_->advanceBy(60s);
  EXPECT_EQ(27u, socket_->connectCount());
  EXPECT_EQ(0u, authFrames());

  // The network returns: the pending connection opens, and the socket is authenticated once.
  socket_->open();
  EXPECT_FALSE(reconnector_->isReconnecting());
  EXPECT_EQ(1u, authFrames());
  EXPECT_EQ("AUTH tok", socket_->sentTexts().back());
  socket_->receiveMessage(R"({"kapiId":"k"})");
  scheduler_->advanceBy(60s);
  EXPECT_EQ(27u, socket_->connectCount());
  EXPECT_EQ(0u, scheduler_->pendingCount()) << "pulse, attempts and time-outs all ended";
}

TEST_F(SocketReconnectorTest, ASocketFoundConnectedEndsThePulseWithoutAnAttempt) {
  socket_->setOptions({.openOnConnect = true});
  socket_->connect();  // someone else connected it
  reconnector_->launchReconnection("tok");
  scheduler_->advanceBy(3s);
  EXPECT_FALSE(reconnector_->isReconnecting());
  EXPECT_EQ(1u, socket_->connectCount());
  EXPECT_EQ(0u, authFrames());
  EXPECT_EQ(0u, scheduler_->pendingCount());
}

TEST_F(SocketReconnectorTest, AFailedAuthenticationIsDroppedAndTheSocketStaysConnected) {
  reconnector_->launchReconnection("tok");
  scheduler_->advanceBy(3s);
  socket_->open();
  scheduler_->advanceBy(20s);
  SocketState state = SocketState::newSocket();
  handler_->stateEventPublisher().take(1).subscribe([&](const SocketState& s) { state = s; });
  EXPECT_EQ(SocketState::connected(), state);
  EXPECT_FALSE(reconnector_->isReconnecting());
  scheduler_->advanceBy(60s);
  EXPECT_EQ(1u, socket_->connectCount());
}

TEST_F(SocketReconnectorTest, AReleasedReconnectorStopsItsPulse) {
  reconnector_->launchReconnection("tok");
  scheduler_->advanceBy(3s);
  std::weak_ptr<SocketReconnector> weak = reconnector_;
  reconnector_.reset();
  EXPECT_TRUE(weak.expired()) << "the running reconnection holds it weakly";
  scheduler_->advanceBy(60s);
  EXPECT_EQ(1u, socket_->connectCount());
  EXPECT_EQ(0u, scheduler_->pendingCount());
}

}  // namespace
}  // namespace kel
