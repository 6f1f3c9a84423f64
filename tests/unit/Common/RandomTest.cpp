#include "ServerClient/Common/Random.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

namespace kel {
namespace {

TEST(SecureRandom, NumbersCoverTheirRangeAndTextsHaveTheirForm) {
  std::set<std::uint64_t> seen;
  for (int i = 0; i < 2000; ++i) seen.insert(secureRandomBelow(7));
  EXPECT_EQ((std::set<std::uint64_t>{0, 1, 2, 3, 4, 5, 6}), seen);
  EXPECT_THROW(secureRandomBelow(0), std::invalid_argument);

  const auto text = randomString(4000);
  EXPECT_TRUE(std::regex_match(text, std::regex("[A-Za-z0-9]{4000}")));
  EXPECT_NE(randomString(16), randomString(16));

  const auto id = makeUUIDString();
  EXPECT_TRUE(std::regex_match(
      id, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
      << id;
  EXPECT_NE(id, makeUUIDString());
}

}  // namespace
}  // namespace kel
