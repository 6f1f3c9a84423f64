#include "ServerClient/Socket/Model/Request.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <stdexcept>

namespace kel {
namespace {

enum class TestPath { presence, users };
[[maybe_unused]] constexpr auto pathTable(TestPath) {
  return makePathTable<TestPath>({{TestPath::presence, "/presence"}, {TestPath::users, "/users"}});
}

using nlohmann::json;

JsonRequest<TestPath> presenceRequest(std::optional<json> body) {
  return {.requestID = 42,
          .pathname = {TestPath::presence, {PathRule::append("u1")}},
          .headers = {{"X-Trace", "1"}},
          .body = std::move(body),
          .method = "PUT"};
}

TEST(Request, TheFrameIsTheDigitTwoThenThePrettyPrintedFourMemberWireObject) {
  const auto request = presenceRequest(json{{"note", "caf\xc3\xa9"}});
  const auto frame = request.toMessage();
  ASSERT_TRUE(frame);
  EXPECT_EQ(
      "2{\n  \"body\": {\n    \"note\": \"caf\xc3\xa9\"\n  },\n  \"id\": 42,\n  \"method\": "
      "\"PUT\",\n  \"path\": \"/presence/u1\"\n}",
      *frame)
      << "UTF-8 kept; headers and time-out stay local";
  EXPECT_EQ(json::object(), presenceRequest(std::nullopt).toDictionary()["body"]);
  EXPECT_EQ(nullptr, presenceRequest(json(nullptr)).toDictionary()["body"]) << "null is a body";
  Request<std::map<std::string, std::string>, TestPath> typed{
      .pathname = TestPath::users, .body = std::map<std::string, std::string>{{"a", "b"}}};
  EXPECT_EQ((json{{"a", "b"}}), typed.toDictionary()["body"]);
}

struct ThrowingBody {};
[[noreturn]] void to_json(json&, const ThrowingBody&) {
  throw std::runtime_error("no JSON form");
}

TEST(Request, NoFrameForABodyThatIsNotPlainJson) {
  for (const json& body :
       {json{{"bad", "\xc3\x28"}}, json{{"\xff", 1}}, json{{"x", {1, std::nan("")}}},
        json{{"x", std::numeric_limits<double>::infinity()}}, json::binary({1, 2, 3}),
        json(json::value_t::discarded)}) {
    EXPECT_FALSE(presenceRequest(body).toMessage()) << body.type_name();
  }
  EXPECT_FALSE(
      (JsonRequest<TestPath>{.pathname = TestPath::users, .method = "GET\xff"}.toMessage()));
  Request<ThrowingBody, TestPath> throwing{.pathname = TestPath::users, .body = ThrowingBody{}};
  EXPECT_FALSE(throwing.toMessage());
}

TEST(Request, RequestsDefaultToAFreshIdentifierInTheWholeRangeAndATwentySecondTimeOut) {
  const JsonRequest<TestPath> a{.pathname = TestPath::users};
  const JsonRequest<TestPath> b{.pathname = TestPath::users};
  EXPECT_EQ(std::chrono::seconds(20), a.timeout);
  EXPECT_NE(a.requestID, b.requestID);  // 1 in 2^31 to fail by chance
  std::int64_t highest = 0;
  std::int64_t lowest = kMaxRequestID;
  for (int i = 0; i < 20000; ++i) {
    const auto id = makeRequestID();
    ASSERT_TRUE(id >= 0 && id <= kMaxRequestID) << id;
    highest = std::max(highest, id);
    lowest = std::min(lowest, id);
  }
  EXPECT_EQ(2147483646, kMaxRequestID);
  // A narrower or shifted range would show here; each bound fails by chance with p < 1e-8.
  EXPECT_GT(highest, kMaxRequestID - kMaxRequestID / 1000);
  EXPECT_LT(lowest, kMaxRequestID / 1000);
}

}  // namespace
}  // namespace kel
