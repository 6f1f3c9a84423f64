#include "ServerClient/Version.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>

TEST(Version, IsSemantic) {
  std::string_view v = kel::libraryVersion();
  EXPECT_EQ(2, std::count(v.begin(), v.end(), '.'));
}
