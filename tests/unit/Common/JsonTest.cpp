#include "ServerClient/Common/Decoding.h"
#include "ServerClient/Common/Json.h"

#include <gtest/gtest.h>

#include "support/Thrown.h"

namespace kel {
namespace {

std::string nested(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

TEST(ParseJson, RefusesDocumentsDeeperThanTheLimitBeforeBuildingThem) {
  EXPECT_TRUE(parseJson(nested(kMaxJsonDepth)));
  EXPECT_FALSE(parseJson(nested(kMaxJsonDepth + 1)));
  // The trap: nlohmann parses this but would overflow the stack copying or dumping it.
  EXPECT_FALSE(parseJson(nested(100'000)));
  EXPECT_FALSE(parseJson(std::string(100'000, '{')));
  // Brackets inside strings, escaped quotes included, are not nesting.
  std::string deepText = "[\"" + std::string(500, '[') + "\\\"" + std::string(500, '{') + "\"]";
  EXPECT_TRUE(parseJson(deepText));
}

TEST(ParseJson, RejectsMalformedTextAndDumpRefusesInvalidUtf8WithoutThrowing) {
  for (std::string text : {"", "{", "{\"a\":}", "[1,]", "\"\xff\"", "nul", "{} x"}) {
    EXPECT_FALSE(parseJson(text)) << text;
  }
  EXPECT_FALSE(parseJson(std::string_view("{\"a\":1}\0junk", 13)));
  EXPECT_EQ(5, parseJson("5")->get<int>());
  EXPECT_FALSE(dumpJson(nlohmann::json(std::string("\xc3\x28"))));
  EXPECT_EQ("{\"a\":[1,2]}", dumpJson(nlohmann::json{{"a", {1, 2}}}));
}

TEST(Utf8, AcceptsWellFormedAndRejectsEveryMalformedShape) {
  EXPECT_TRUE(isValidUtf8(""));
  EXPECT_TRUE(isValidUtf8("\xc3\xa9t\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"));
  EXPECT_TRUE(isValidUtf8("\xf4\x8f\xbf\xbf"));  // U+10FFFF
  for (std::string bad : {"\x80", "\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80",
                          "\xf5\x80\x80\x80", "\xc3", "\xe2\x82", "\xe2\x28\xa1"}) {
    EXPECT_FALSE(isValidUtf8(bad));
  }
}

struct Point {
  int x = 0;
  int y = 0;
};
void from_json(const nlohmann::json& j, Point& p) {
  j.at("x").get_to(p.x);
  j.at("y").get_to(p.y);
}

TEST(Decoding, DecodesRecordsAndListsAndReportsTheDataOnFailure) {
  EXPECT_EQ(2, from<Point>(R"({"x":1,"y":2})").y);
  EXPECT_EQ(3, fromArray<Point>(R"([{"x":1,"y":2},{"x":3,"y":4}])").at(1).x);
  const std::pair<std::string, std::string> failing[] = {
      {R"({"x":1})", R"({"x":1})"}, {"oops", "oops"}, {nested(200), nested(200)}, {"\xff", ""}};
  for (const auto& [data, carried] : failing) {
    EXPECT_EQ(GenericErrorType::decoding(carried),
              test::thrown<GenericError>([&] { from<Point>(data); }).value().type())
        << data;
  }
  EXPECT_THROW(fromArray<Point>(R"({"x":1,"y":2})"), GenericError);
}

}  // namespace
}  // namespace kel
