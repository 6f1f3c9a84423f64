#include "ServerClient/platform/SocketCloseCode.h"
#include "ServerClient/platform/UpgradeRequest.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace kel::platform {
namespace {

TEST(SocketCloseCode, CodesRoundTripThroughTheWireAndUnlistedOnesAreKeptExactly) {
  EXPECT_EQ(1006, wireCode(SocketCloseCode::abnormalClosure));
  EXPECT_EQ(4001, wireCode(SocketCloseCode::goingBackground));
  for (auto code : allSocketCloseCodes()) {
    EXPECT_EQ(code, socketCloseCodeFrom(wireCode(code)));
    EXPECT_TRUE(isListed(code));
  }
  const auto code = socketCloseCodeFrom(4321);
  EXPECT_FALSE(isListed(code));
  EXPECT_EQ(4321, wireCode(code));
  EXPECT_EQ("closeCode(4321)", name(code));
}

TEST(SocketCloseCode, OnlyCodesAllowedInACloseFrameCanBeSent) {
  for (auto code :
       {SocketCloseCode::normalClosure, SocketCloseCode::protocolError,
        SocketCloseCode::internalServerError, SocketCloseCode::otherExpectedClosure,
        SocketCloseCode::goingBackground, socketCloseCodeFrom(3000), socketCloseCodeFrom(4999)}) {
    EXPECT_TRUE(canBeSent(code)) << name(code);
  }
  for (auto code : {SocketCloseCode::invalid, SocketCloseCode::noStatusReceived,
                    SocketCloseCode::abnormalClosure, SocketCloseCode::tlsHandshakeFailure,
                    socketCloseCodeFrom(1004), socketCloseCodeFrom(1012), socketCloseCodeFrom(2999),
                    socketCloseCodeFrom(5000), socketCloseCodeFrom(999)}) {
    EXPECT_FALSE(canBeSent(code)) << name(code);
  }
}

TEST(UpgradeRequest, FieldsAreReplacedByCaseInsensitiveNameAndNeverInjectHeaderLines) {
  UpgradeRequest request;
  request.setHeaderField("Cookie", "a=1");
  request.setHeaderField("X-Other", "x");
  request.setHeaderField("cookie", "b=2");
  ASSERT_EQ(2u, request.headerFields().size());
  EXPECT_EQ((UpgradeRequest::HeaderField{"Cookie", "b=2"}), request.headerFields()[0]);
  EXPECT_TRUE(request.removeHeaderField("x-other"));
  EXPECT_EQ(std::nullopt, request.headerField("X-Other"));
  const std::pair<std::string, std::string> refused[] = {{"Cookie", "a=1\r\nX-Evil: 1"},
                                                         {"Cookie", std::string("a\0b", 3)},
                                                         {"Bad Name", "v"},
                                                         {"", "v"},
                                                         {"X:Y", "v"}};
  for (const auto& [name, value] : refused) {
    EXPECT_THROW(request.setHeaderField(name, value), std::invalid_argument) << name;
  }
  EXPECT_EQ("b=2", request.headerField("COOKIE"));
}

}  // namespace
}  // namespace kel::platform
