#include "ServerClient/Socket/Model/SocketState.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "ServerClient/Common/SDKError.h"

namespace kel {
namespace {

using Reason = SocketStateDisconnectedReason;

TEST(SocketState, EqualityComparesKindAndReasonButNotTheError) {
  EXPECT_EQ(SocketState::error(makeError(std::runtime_error("a"))),
            SocketState::error(makeError(GenericError(GenericErrorType::unknown()))));
  EXPECT_EQ(SocketState::error(nullptr), SocketState::error(makeError(std::runtime_error("a"))));
  EXPECT_EQ(SocketState::disconnected(Reason::background),
            SocketState::disconnected(Reason::background));
  EXPECT_NE(SocketState::disconnected(Reason::background),
            SocketState::disconnected(Reason::lostConnection));
  EXPECT_NE(SocketState::connected(), SocketState::authenticated());
  EXPECT_NE(SocketState::newSocket(), SocketState::disconnected(Reason::expectedClose));
  EXPECT_EQ(std::nullopt, SocketState::connected().reason());
  EXPECT_EQ(Reason::lostConnection, SocketState::disconnected(Reason::lostConnection).reason());
}

TEST(SocketState, AllCasesInTheDocumentedOrder) {
  const auto all = SocketState::allCases();
  EXPECT_EQ(SocketState::newSocket(), all[0]);
  EXPECT_EQ(SocketState::connected(), all[1]);
  EXPECT_EQ(SocketState::disconnected(Reason::expectedClose), all[2]);
  EXPECT_EQ(SocketState::disconnected(Reason::lostConnection), all[3]);
  EXPECT_EQ(SocketState::Kind::error, all[4].kind());
  EXPECT_EQ(SocketState::authenticated(), all[5]);
  const auto* error = errorAs<GenericError>(all[4].errorPointer());
  ASSERT_NE(nullptr, error);
  EXPECT_EQ(GenericErrorType::underlying(), error->type());
  EXPECT_EQ("", error->description());
}

TEST(SocketState, NamesForLogLinesShowTheReasonAndTheError) {
  EXPECT_EQ("new", SocketState::newSocket().name());
  EXPECT_EQ("disconnected(background)", SocketState::disconnected(Reason::background).name());
  EXPECT_EQ("error(socket broke)",
            SocketState::error(makeError(std::runtime_error("socket broke"))).name());
}

}  // namespace
}  // namespace kel
