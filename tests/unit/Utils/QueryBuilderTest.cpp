#include "ServerClient/Utils/QueryBuilder.h"

#include <gtest/gtest.h>

#include <boost/url/parse.hpp>

namespace kel {
namespace {

TEST(QueryBuilder, PresentValuesInKeyOrderWithTheirTextFormsAndSeparatorsEncoded) {
  EXPECT_EQ("", QueryBuilder({{"limit", std::nullopt}}).build());
  EXPECT_EQ("?a=1.5&b=true&c=x&e=-3&f=2.0&g=18446744073709551615",
            QueryBuilder({{"e", -3},
                          {"c", "x"},
                          {"b", true},
                          {"d", std::nullopt},
                          {"a", 1.5},
                          {"f", 2.0},
                          {"g", std::numeric_limits<std::uint64_t>::max()}})
                .build());
  EXPECT_EQ("?q=a%2Bb%20c&x%26y=1%3D2", QueryBuilder({{"q", "a+b c"}, {"x&y", "1=2"}}).build());
  EXPECT_EQ("?p=%25%23%3B%C3%A9", QueryBuilder({{"p", "%#;\xC3\xA9"}}).build());
  // Characters a query allows, other than the separators, are left alone.
  EXPECT_EQ("?s=-._~!$'()*,:@/?", QueryBuilder({{"s", "-._~!$'()*,:@/?"}}).build());

  const std::string name = "k &=+;#?";
  const std::string value = "v \"&=+;#%\"\n";
  const auto query = QueryBuilder({{name, value}}).build();
  const auto url = boost::urls::parse_uri_reference(query);
  ASSERT_TRUE(url.has_value());
  ASSERT_EQ(1u, url->params().size());
  EXPECT_EQ(name, (*url->params().begin()).key);
  EXPECT_EQ(value, (*url->params().begin()).value);
}

}  // namespace
}  // namespace kel
