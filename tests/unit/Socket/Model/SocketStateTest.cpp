#include "ServerClient/Socket/Model/SocketState.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "ServerClient/Common/SDKError.h"

namespace kel {
namespace {

using Reason = SocketStateDisconnectedReason;

// Equality decides which state changes are news to subscribers; names go into log lines.
TEST(SocketState, EqualityComparesKindAndReasonButNotTheErrorAndNamesShowBoth) {
  EXPECT_EQ(SocketState::error(nullptr), SocketState::error(makeError(std::runtime_error("a"))));
  EXPECT_NE(SocketState::disconnected(Reason::background),
            SocketState::disconnected(Reason::lostConnection));
  EXPECT_NE(SocketState::connected(), SocketState::authenticated());
  EXPECT_EQ("new", SocketState::newSocket().name());
  EXPECT_EQ("disconnected(background)", SocketState::disconnected(Reason::background).name());
  EXPECT_EQ("error(socket broke)",
            SocketState::error(makeError(std::runtime_error("socket broke"))).name());
}

}  // namespace
}  // namespace kel
