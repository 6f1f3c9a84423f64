#include "ServerClient/Socket/Model/Request.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "ServerClient/Common/Json.h"

namespace kel {
namespace {

enum class Path { presence, users };
[[maybe_unused]] constexpr auto pathTable(Path) {
  return makePathTable<Path>({{Path::presence, "/presence"}, {Path::users, "/users"}});
}

using nlohmann::json;

JsonRequest<Path> presenceRequest(std::optional<json> body) {
  return {.requestID = 42,
          .pathname = {Path::presence, {PathRule::append("u1")}},
          .headers = {{"X-Trace", "1"}},
          .body = std::move(body),
          .method = "PUT"};
}

// The frame's JSON, after checking the "2" prefix.
json frameJson(const std::string& frame) {
  EXPECT_EQ('2', frame.front());
  auto parsed = parseJson(std::string_view(frame).substr(1));
  EXPECT_TRUE(parsed && parsed->is_object()) << frame;
  return parsed.value_or(json());
}

TEST(Request, WireObjectHasExactlyFourMembersAndAnEmptyObjectForNoBody) {
  EXPECT_EQ(
      (json{{"id", 42}, {"path", "/presence/u1"}, {"method", "PUT"}, {"body", json::object()}}),
      presenceRequest(std::nullopt).toDictionary());
  EXPECT_EQ(json::array(), presenceRequest(json::array()).toDictionary()["body"]);
  // An explicit JSON null is a body, and it is sent as such.
  EXPECT_EQ(nullptr, presenceRequest(json(nullptr)).toDictionary()["body"]);
}

TEST(Request, FrameIsTheDigitTwoThenThePrettyPrintedWireObject) {
  const auto request = presenceRequest(json{{"note", "caf\xc3\xa9"}, {"n", {1, 2}}});
  const auto frame = request.toMessage();
  ASSERT_TRUE(frame);
  EXPECT_EQ(request.toDictionary(), frameJson(*frame));
  EXPECT_TRUE(frame->starts_with("2{\n  \"body\": {\n")) << *frame;  // one member per line
  EXPECT_NE(std::string::npos, frame->find("caf\xc3\xa9"));          // UTF-8 kept, not escaped
  EXPECT_EQ(std::string::npos, frame->find("X-Trace"));              // headers stay local
  EXPECT_EQ(std::string::npos, frame->find("timeout"));
}

TEST(Request, TypedBodiesAreSentAsTheirJson) {
  Request<std::map<std::string, std::string>, Path> mapRequest{
      .pathname = Path::users,
      .body = std::map<std::string, std::string>{{"a", "b"}},
      .method = "POST"};
  EXPECT_EQ((json{{"a", "b"}}), frameJson(*mapRequest.toMessage())["body"]);
  Request<std::vector<std::string>, Path> listRequest{
      .pathname = Path::users, .body = std::vector<std::string>{"x", "y"}, .method = "POST"};
  EXPECT_EQ((json{"x", "y"}), frameJson(*listRequest.toMessage())["body"]);
}

struct ThrowingBody {};
[[noreturn]] void to_json(json&, const ThrowingBody&) {
  throw std::runtime_error("no JSON form");
}

TEST(Request, NoFrameForABodyThatIsNotPlainJson) {
  EXPECT_FALSE(presenceRequest(json{{"bad", "\xc3\x28"}}).toMessage());  // invalid UTF-8 value
  EXPECT_FALSE(presenceRequest(json{{"\xff", 1}}).toMessage());          // invalid UTF-8 key
  EXPECT_FALSE(presenceRequest(json{{"x", {1, std::nan("")}}}).toMessage());
  EXPECT_FALSE(presenceRequest(json{{"x", std::numeric_limits<double>::infinity()}}).toMessage());
  EXPECT_FALSE(presenceRequest(json::binary({1, 2, 3})).toMessage());
  EXPECT_FALSE(presenceRequest(json(json::value_t::discarded)).toMessage());
  const JsonRequest<Path> badMethod{.pathname = Path::users, .method = "GET\xff"};
  EXPECT_FALSE(badMethod.toMessage());
  EXPECT_TRUE(presenceRequest(json{{"x", 1.5}}).toMessage());
  Request<ThrowingBody, Path> throwing{
      .pathname = Path::users, .body = ThrowingBody{}, .method = "GET"};
  EXPECT_THROW(throwing.toDictionary(), std::runtime_error);
  EXPECT_FALSE(throwing.toMessage());
}

TEST(MakeRequestID, RequestsDefaultToAFreshIdentifierInTheWholeRange) {
  const JsonRequest<Path> a{.pathname = Path::users, .method = "GET"};
  const JsonRequest<Path> b{.pathname = Path::users, .method = "GET"};
  EXPECT_EQ(std::chrono::seconds(20), a.timeout);
  EXPECT_NE(a.requestID, b.requestID);  // 1 in 2^31 to fail by chance
  std::int64_t highest = 0;
  std::int64_t lowest = kMaxRequestID;
  for (int i = 0; i < 20000; ++i) {
    const auto id = makeRequestID();
    ASSERT_GE(id, 0);
    ASSERT_LE(id, kMaxRequestID);
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
