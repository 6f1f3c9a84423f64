// The emulator's frames, read back with the library's own classification and failure rule:
// whatever the emulator claims a frame is, the client must see it the same way.

#include <gtest/gtest.h>

#include "ServerClient/Socket/Model/ErrorCode.h"
#include "ServerClient/Socket/Model/SocketMessage.h"
#include "emulator/Fault.h"
#include "emulator/Frames.h"

namespace kel::emulator {
namespace {

using nlohmann::json;

TEST(EmulatorFrames, ClientFramesAreReadStrictly) {
  auto request = parseRequestFrame(
      "2{\n  \"id\": 2147483646,\n  \"path\": \"/p?q=1\",\n"
      "  \"method\": \"GET\",\n  \"body\": [1]\n}");
  ASSERT_TRUE(request);
  EXPECT_EQ(2147483646, request->id);
  EXPECT_EQ("/p?q=1", request->path);
  EXPECT_EQ("GET", request->method);
  EXPECT_EQ(json::array({1}), request->body);
  EXPECT_EQ(json::object(), parseRequestFrame(R"(2{"id":1,"path":"/","method":"GET"})")->body);

  for (const char* bad :
       {"2", "2[]", "2 1", R"(2{"id":1.0,"path":"/","method":"GET"})",
        R"(2{"id":"1","path":"/","method":"GET"})", R"(2{"id":1,"method":"GET"})",
        R"(2{"id":1,"path":"/","method":2})", R"(3{"id":1,"path":"/","method":"GET"})"}) {
    EXPECT_FALSE(parseRequestFrame(bad)) << bad;
    EXPECT_EQ(FrameKind::malformed, classifyClientFrame(bad)) << bad;
  }
  EXPECT_EQ(FrameKind::auth, classifyClientFrame("AUTH token"));
  EXPECT_EQ(FrameKind::auth, classifyClientFrame("AUTH "));
  EXPECT_EQ(FrameKind::malformed, classifyClientFrame("AUTH"));
  EXPECT_EQ(FrameKind::request, classifyClientFrame(R"(2{"id":-3,"path":"","method":""})"));
}

TEST(EmulatorFrames, ServerFramesAreWhatTheClientExpects) {
  auto ok = SocketMessage::create(responseFrame(7, Reply::ok({{"a", "ü"}})));
  ASSERT_EQ(SocketMessage::Kind::response, ok.kind());
  EXPECT_EQ((json{{"id", 7}, {"status", 200}, {"body", {{"a", "ü"}}}}), ok.asResponse()->json);
  EXPECT_FALSE(errorCode(ok.asResponse()->json));

  EXPECT_EQ(
      404,
      errorCode(
          SocketMessage::create(responseFrame(8, Reply::message(404, "no"))).asResponse()->json));
  EXPECT_EQ(
      0,
      errorCode(SocketMessage::create(responseFrame(9, Reply::errorCode(0))).asResponse()->json));
  // A handler's invalid UTF-8 does not cost the client its answer.
  EXPECT_EQ(SocketMessage::Kind::response,
            SocketMessage::create(responseFrame(10, Reply::ok(json("bad \xff")))).kind());

  auto event = SocketMessage::create(eventFrame("/presence/1", "PUT", {{"s", 1}}));
  ASSERT_EQ(SocketMessage::Kind::event, event.kind());
  EXPECT_EQ((json{{"path", "/presence/1"}, {"method", "PUT"}, {"body", {{"s", 1}}}}),
            event.asEvent()->json);
  EXPECT_EQ(SocketMessage::Kind::auth, SocketMessage::create(authAcknowledgementFrame("k")).kind());
  EXPECT_EQ(SocketMessage::Kind::ping, SocketMessage::create(kPingFrame).kind());
}

TEST(EmulatorFrames, MalformedFramesAreMalformedInTheWayTheirNameSays) {
  using Kind = SocketMessage::Kind;
  auto kindOf = [](Malformed m, std::optional<std::int64_t> id = std::nullopt) {
    return SocketMessage::create(malformedFrame(m, id, 1000).data).kind();
  };
  for (auto id : {std::optional<std::int64_t>(), std::optional<std::int64_t>(41)}) {
    EXPECT_EQ(Kind::unknown, kindOf(Malformed::notJson, id));
    EXPECT_EQ(Kind::unknown, kindOf(Malformed::bareThree, id));
    EXPECT_EQ(Kind::event, kindOf(Malformed::list, id));
    EXPECT_EQ(Kind::unknown, kindOf(Malformed::scalar, id));
    EXPECT_EQ(Kind::event, kindOf(Malformed::stringId, id));
    EXPECT_EQ(Kind::unknown, kindOf(Malformed::invalidUtf8, id));
    EXPECT_EQ(Kind::unknown, kindOf(Malformed::empty, id));
    EXPECT_TRUE(malformedFrame(Malformed::binary, id).binary);
  }
  // The binary and huge frames would be well-formed as text: only their form is wrong.
  auto binary = SocketMessage::create(malformedFrame(Malformed::binary, 41).data);
  ASSERT_EQ(Kind::response, binary.kind());
  EXPECT_EQ(41, binary.asResponse()->id);
  auto huge = malformedFrame(Malformed::huge, 41, 5000);
  EXPECT_EQ(5000u, huge.data.size());
  EXPECT_EQ(Kind::response, SocketMessage::create(huge.data).kind());
  EXPECT_EQ(Kind::event,
            SocketMessage::create(malformedFrame(Malformed::huge, {}, 5000).data).kind());
}

}  // namespace
}  // namespace kel::emulator
