#include "ServerClient/Common/Random.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

namespace kel {
namespace {

TEST(SecureRandom, StaysInRangeAndCoversIt) {
  EXPECT_EQ(0u, secureRandomBelow(1));
  std::set<std::uint64_t> seen;
  for (int i = 0; i < 2000; ++i) {
    auto v = secureRandomBelow(7);
    ASSERT_LT(v, 7u);
    seen.insert(v);
  }
  EXPECT_EQ(7u, seen.size());
  EXPECT_THROW(secureRandomBelow(0), std::invalid_argument);
}

TEST(SecureRandom, RandomStringsUseLettersAndDigitsOnly) {
  EXPECT_EQ("", randomString(0));
  auto s = randomString(4000);
  EXPECT_EQ(4000u, s.size());
  EXPECT_TRUE(std::regex_match(s, std::regex("[A-Za-z0-9]+")));
  EXPECT_NE(randomString(16), randomString(16));
}

TEST(SecureRandom, UUIDsAreVersion4InStandardForm) {
  auto id = makeUUIDString();
  EXPECT_TRUE(
      std::regex_match(id, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-"
                                      "[0-9A-F]{12}")))
      << id;
  EXPECT_NE(id, makeUUIDString());
}

}  // namespace
}  // namespace kel
