#include "ServerClient/Client/ServerState.h"

#include <gtest/gtest.h>

#include "ServerClient/rx/Subjects.h"

namespace kel {
namespace {

using enum KelServerState;
using Reason = SocketStateDisconnectedReason;

class ServerStateTest : public ::testing::Test {
 protected:
  ServerStateTest() {
    state_->setSocketEvents(socket_.asObservable());
    state_->currentState().asObservable().subscribe(
        [this](KelServerState s) { states_.push_back(s); });
    state_->needsNewSession().subscribe([this](rx::Unit) { ++needsNewSession_; });
    states_.clear();  // the initial value
  }

  std::shared_ptr<ServerState> state_ = std::make_shared<ServerState>();
  rx::PublishSubject<SocketState> socket_;
  std::vector<KelServerState> states_;
  int needsNewSession_ = 0;
};

TEST_F(ServerStateTest, MapsSocketStatesToFacadeStates) {
  socket_.onNext(SocketState::newSocket());
  socket_.onNext(SocketState::connected());
  EXPECT_TRUE(states_.empty());
  socket_.onNext(SocketState::disconnected(Reason::lostConnection));
  socket_.onNext(SocketState::disconnected(Reason::background));
  socket_.onNext(SocketState::error(nullptr));
  EXPECT_EQ((std::vector{disconnected, disconnectedBackground, disconnected}), states_);
  EXPECT_EQ(0, needsNewSession_);

  // Back to connected only from disconnected, and only with a user session.
  socket_.onNext(SocketState::authenticated());
  EXPECT_EQ(disconnected, states_.back());
  state_->setUserSession(AuthenticationData{});
  EXPECT_EQ(connected, states_.back());
  state_->emit(disconnectedBackground);
  socket_.onNext(SocketState::authenticated());
  EXPECT_EQ(disconnectedBackground, states_.back());
  state_->emit(disconnected);
  socket_.onNext(SocketState::authenticated());
  EXPECT_EQ(connected, states_.back());
}

TEST_F(ServerStateTest, AnExpectedCloseAsksForANewSessionOnceUntilTheNextAuthentication) {
  socket_.onNext(SocketState::disconnected(Reason::expectedClose));
  socket_.onNext(SocketState::disconnected(Reason::expectedClose));
  EXPECT_EQ(1, needsNewSession_);
  EXPECT_TRUE(state_->isLogout());
  socket_.onNext(SocketState::authenticated());
  EXPECT_FALSE(state_->isLogout());
  socket_.onNext(SocketState::disconnected(Reason::expectedClose));
  EXPECT_EQ(2, needsNewSession_);
}

TEST_F(ServerStateTest, FollowsOnlyTheLatestSocketAndNothingOnceGone) {
  rx::PublishSubject<SocketState> next;
  state_->setSocketEvents(next.asObservable());
  socket_.onNext(SocketState::disconnected(Reason::lostConnection));
  EXPECT_TRUE(states_.empty());
  next.onNext(SocketState::disconnected(Reason::lostConnection));
  EXPECT_EQ(1u, states_.size());

  state_->setSocketEvents(std::nullopt);
  next.onNext(SocketState::disconnected(Reason::background));
  EXPECT_EQ(1u, states_.size());

  state_->setSocketEvents(next.asObservable());
  state_.reset();
  next.onNext(SocketState::disconnected(Reason::background));  // no owner: ignored
  EXPECT_EQ(1u, states_.size());
}

}  // namespace
}  // namespace kel
