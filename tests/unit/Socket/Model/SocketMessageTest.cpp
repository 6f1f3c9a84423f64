#include "ServerClient/Socket/Model/AuthFrame.h"
#include "ServerClient/Socket/Model/SocketMessage.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace kel {
namespace {

using nlohmann::json;
using Kind = SocketMessage::Kind;

TEST(SocketMessage, ClassifiesFramesByTheirFirstByte) {
  struct Case {
    std::string frame;
    SocketMessage expected;
  };
  const Case cases[] = {
      {"0", SocketMessage::ping()},
      {"0anything, not even JSON {", SocketMessage::ping()},
      {R"(3{"id":5,"status":200,"body":{}})",
       SocketMessage::response(5, json{{"id", 5}, {"status", 200}, {"body", json::object()}})},
      {R"(3{"id":"5"})", SocketMessage::event(json{{"id", "5"}})},
      {R"(3{"path":"/presence","method":"put","body":{}})",
       SocketMessage::event(
           json{{"path", "/presence"}, {"method", "put"}, {"body", json::object()}})},
      {"3[1,2]", SocketMessage::event(json::object())},
      {"3{}", SocketMessage::event(json::object())},
      {"3 \n{\"id\": 1}", SocketMessage::response(1, json{{"id", 1}})},
      {"3", SocketMessage::unknown()},
      {"3not json", SocketMessage::unknown()},
      {"35", SocketMessage::unknown()},         // bare number
      {"3\"text\"", SocketMessage::unknown()},  // bare string
      {"3null", SocketMessage::unknown()},
      {R"({"kapiId":"abc"})", SocketMessage::auth()},
      {R"({"kapiId":null,"other":1})", SocketMessage::auth()},
      {R"(  {"kapiId":1})", SocketMessage::auth()},
      {R"({"kapiid":1})", SocketMessage::unknown()},
      {"{}", SocketMessage::unknown()},
      {R"([{"kapiId":1}])", SocketMessage::unknown()},
      {"", SocketMessage::unknown()},
      {R"(2{"id":1})", SocketMessage::unknown()},
      {R"(3{"kapiId":1})", SocketMessage::event(json{{"kapiId", 1}})},
      {"AUTH token", SocketMessage::unknown()},
  };
  for (const auto& c : cases) EXPECT_EQ(c.expected, SocketMessage::create(c.frame)) << c.frame;
}

TEST(SocketMessage, ResponseIdMustBeAJsonIntegerThatFitsInt64) {
  EXPECT_EQ(SocketMessage::response(-7, json{{"id", -7}}), SocketMessage::create(R"(3{"id":-7})"));
  const auto big = SocketMessage::create(R"(3{"id":9223372036854775807})");
  ASSERT_EQ(Kind::response, big.kind());
  EXPECT_EQ(INT64_MAX, big.asResponse()->id);
  EXPECT_EQ(INT64_MIN, SocketMessage::create(R"(3{"id":-9223372036854775808})").asResponse()->id);
  for (const char* frame :
       {R"(3{"id":9223372036854775808})", R"(3{"id":18446744073709551615})",
        R"(3{"id":-9223372036854775809})", R"(3{"id":99999999999999999999999999})",
        R"(3{"id":5.0})", R"(3{"id":5e0})", R"(3{"id":true})", R"(3{"id":null})",
        R"(3{"id":[5]})"}) {
    EXPECT_EQ(Kind::event, SocketMessage::create(frame).kind()) << frame;
  }
  EXPECT_NE(Kind::response, SocketMessage::create(R"(3{"id":1e400})").kind());
}

TEST(SocketMessage, HostileFramesAreUnknownWithoutThrowing) {
  const std::string deep = std::string(100'000, '[') + std::string(100'000, ']');
  EXPECT_EQ(Kind::unknown, SocketMessage::create("3" + deep).kind());
  EXPECT_EQ(Kind::unknown, SocketMessage::create(std::string(1'000'000, '{')).kind());
  EXPECT_EQ(Kind::unknown, SocketMessage::create("3{\"id\":1,\"x\":\"\xc3\x28\"}").kind());
  EXPECT_EQ(Kind::unknown, SocketMessage::create("{\"kapiId\":\"\xed\xa0\x80\"}").kind());
  EXPECT_EQ(Kind::unknown, SocketMessage::create(std::string("3{\"id\":1}\0junk", 13)).kind());
  EXPECT_EQ(Kind::unknown, SocketMessage::create("3{\"id\":1} {\"id\":2}").kind());
  // Within the depth limit, nesting is fine.
  EXPECT_EQ(Kind::response, SocketMessage::create("3{\"id\":1,\"b\":" + std::string(100, '[') +
                                                  std::string(100, ']') + "}")
                                .kind());

  std::mt19937 random(20240601);  // fixed seed: a failure must be reproducible
  std::uniform_int_distribution<int> byte(0, 255);
  for (int i = 0; i < 2000; ++i) {
    std::string frame(static_cast<std::size_t>(i % 64), '\0');
    for (auto& c : frame) c = static_cast<char>(byte(random));
    if (i % 2 == 0) frame.insert(0, "3{\"id\":");
    const auto message = SocketMessage::create(frame);
    if (!frame.empty() && frame[0] == '0') {
      EXPECT_EQ(Kind::ping, message.kind());
    } else if (frame.size() > 1 && frame[0] == '3') {
      EXPECT_NE(Kind::auth, message.kind());
    }
  }
}

TEST(AuthFrame, IsThePrefixThenTheTokenVerbatim) {
  EXPECT_EQ("AUTH abc.def==", makeAuthFrame("abc.def=="));
  EXPECT_EQ("AUTH ", makeAuthFrame(""));
}

}  // namespace
}  // namespace kel
