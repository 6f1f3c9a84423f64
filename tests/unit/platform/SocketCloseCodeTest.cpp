#include "ServerClient/platform/SocketCloseCode.h"
#include "ServerClient/platform/UpgradeRequest.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace kel::platform {
namespace {

TEST(SocketCloseCode, ListedCodesHaveTheirWireValuesAndNames) {
  const auto all = allSocketCloseCodes();
  ASSERT_EQ(15u, all.size());
  EXPECT_EQ(SocketCloseCode::invalid, all.front());
  EXPECT_EQ(SocketCloseCode::goingBackground, all.back());
  const std::pair<std::uint16_t, const char*> expected[] = {{0, "invalid"},
                                                            {1000, "normalClosure"},
                                                            {1001, "goingAway"},
                                                            {1002, "protocolError"},
                                                            {1003, "unsupportedData"},
                                                            {1005, "noStatusReceived"},
                                                            {1006, "abnormalClosure"},
                                                            {1007, "invalidFramePayloadData"},
                                                            {1008, "policyViolation"},
                                                            {1009, "messageTooBig"},
                                                            {1010, "mandatoryExtensionMissing"},
                                                            {1011, "internalServerError"},
                                                            {1015, "tlsHandshakeFailure"},
                                                            {4000, "otherExpectedClosure"},
                                                            {4001, "goingBackground"}};
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(expected[i].first, wireCode(all[i]));
    EXPECT_EQ(expected[i].second, name(all[i]));
    EXPECT_EQ(all[i], socketCloseCodeFrom(expected[i].first));
    EXPECT_TRUE(isListed(all[i]));
  }
}

TEST(SocketCloseCode, UnlistedWireCodesAreKeptExactly) {
  const auto code = socketCloseCodeFrom(4321);
  EXPECT_FALSE(isListed(code));
  EXPECT_EQ(4321, wireCode(code));
  EXPECT_EQ("closeCode(4321)", name(code));
  EXPECT_NE(SocketCloseCode::normalClosure, code);
  EXPECT_EQ("closeCode(65535)", name(socketCloseCodeFrom(65535)));
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

TEST(UpgradeRequest, HeaderFieldsAreReplacedByCaseInsensitiveName) {
  UpgradeRequest request;
  EXPECT_TRUE(request.shouldHandleCookies());
  request.setHeaderField("Cookie", "a=1");
  request.setHeaderField("X-Other", "x");
  request.setHeaderField("cookie", "b=2");
  ASSERT_EQ(2u, request.headerFields().size());
  EXPECT_EQ((UpgradeRequest::HeaderField{"Cookie", "b=2"}), request.headerFields()[0]);
  EXPECT_EQ("b=2", request.headerField("COOKIE"));
  EXPECT_TRUE(request.removeHeaderField("x-other"));
  EXPECT_FALSE(request.removeHeaderField("x-other"));
  EXPECT_EQ(std::nullopt, request.headerField("X-Other"));
}

TEST(UpgradeRequest, RefusesFieldsThatWouldInjectHeaderLines) {
  UpgradeRequest request;
  EXPECT_THROW(request.setHeaderField("Cookie", "a=1\r\nX-Evil: 1"), std::invalid_argument);
  EXPECT_THROW(request.setHeaderField("Cookie", std::string("a\0b", 3)), std::invalid_argument);
  EXPECT_THROW(request.setHeaderField("Bad Name", "v"), std::invalid_argument);
  EXPECT_THROW(request.setHeaderField("", "v"), std::invalid_argument);
  EXPECT_THROW(request.setHeaderField("X:Y", "v"), std::invalid_argument);
  EXPECT_TRUE(request.headerFields().empty());
}

}  // namespace
}  // namespace kel::platform
