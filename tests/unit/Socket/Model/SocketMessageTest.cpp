#include "ServerClient/Socket/Model/SocketMessage.h"

#include <gtest/gtest.h>

namespace kel {
namespace {

using nlohmann::json;
using Kind = SocketMessage::Kind;

TEST(SocketMessage, ClassifiesFramesByTheirFirstByteAndResponsesByAnInt64Id) {
  struct Case {
    std::string frame;
    Kind kind;
    std::int64_t id = 0;  // a response's
  };
  const Case cases[] = {
      {"0", Kind::ping},
      {"0anything, not even JSON {", Kind::ping},
      {R"(3{"id":5,"status":200,"body":{}})", Kind::response, 5},
      {"3 \n{\"id\": -7}", Kind::response, -7},
      {R"(3{"id":9223372036854775807})", Kind::response, INT64_MAX},
      {R"(3{"id":-9223372036854775808})", Kind::response, INT64_MIN},
      {R"(3{"id":"5"})", Kind::event},
      {R"(3{"id":9223372036854775808})", Kind::event},
      {R"(3{"id":5.0})", Kind::event},
      {R"(3{"id":true})", Kind::event},
      {R"(3{"kapiId":1})", Kind::event},
      {"3[1,2]", Kind::event},
      {R"({"kapiId":"abc"})", Kind::auth},
      {R"(  {"kapiId":null,"other":1})", Kind::auth},
      {R"({"kapiid":1})", Kind::unknown},
      {R"([{"kapiId":1}])", Kind::unknown},
      {"", Kind::unknown},
      {"3", Kind::unknown},
      {"3not json", Kind::unknown},
      {"35", Kind::unknown},
      {"3\"text\"", Kind::unknown},
      {R"(2{"id":1})", Kind::unknown},
      {"AUTH token", Kind::unknown},
      // Depth, UTF-8 and trailing text are parseJson's (JsonTest); a NUL is refused here.
      {std::string("3{\"id\":1}\0junk", 13), Kind::unknown},
  };
  for (const auto& c : cases) {
    const auto message = SocketMessage::create(c.frame);
    EXPECT_EQ(c.kind, message.kind()) << c.frame.substr(0, 40);
    if (c.kind == Kind::response) {
      EXPECT_EQ(c.id, message.asResponse()->id) << c.frame;
    }
  }
  EXPECT_NE(Kind::response, SocketMessage::create(R"(3{"id":1e400})").kind());
  // What the handlers are given: the whole object.
  EXPECT_EQ(SocketMessage::response(5, json{{"id", 5}, {"status", 200}}),
            SocketMessage::create(R"(3{"id":5,"status":200})"));
  EXPECT_EQ(SocketMessage::event(json{{"path", "/presence"}, {"method", "put"}}),
            SocketMessage::create(R"(3{"path":"/presence","method":"put"})"));
}

}  // namespace
}  // namespace kel
