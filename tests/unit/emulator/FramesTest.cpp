// The emulator's frames, read back with the library's own classification: whatever the emulator
// claims a frame is, the client must see it the same way. Well-formed answers and events are read
// by the library in every integration test.

#include <gtest/gtest.h>

#include "ServerClient/Socket/Model/SocketMessage.h"
#include "emulator/Fault.h"
#include "emulator/Frames.h"

namespace kel::emulator {
namespace {

using nlohmann::json;

TEST(EmulatorFrames, ClientFramesAreReadStrictly) {
  auto request = parseRequestFrame(
      "2{\n  \"id\": 2147483646,\n  \"path\": \"/p?q=1\",\n  \"method\": \"GET\",\n  \"body\": "
      "[1]}");
  ASSERT_TRUE(request);
  EXPECT_EQ(2147483646, request->id);
  EXPECT_EQ("/p?q=1", request->path);
  EXPECT_EQ(json::array({1}), request->body);
  EXPECT_EQ(json::object(), parseRequestFrame(R"(2{"id":1,"path":"/","method":"GET"})")->body);

  for (const char* bad :
       {"", "2", "2[]", "2 1", R"(2{"id":1.0,"path":"/","method":"GET"})",
        R"(2{"id":"1","path":"/","method":"GET"})", R"(2{"id":1,"method":"GET"})",
        R"(2{"id":1,"path":"/","method":2})", R"(3{"id":1,"path":"/","method":"GET"})", "AUTH"}) {
    EXPECT_FALSE(parseRequestFrame(bad)) << bad;
    EXPECT_EQ(FrameKind::malformed, classifyClientFrame(bad)) << bad;
  }
  EXPECT_EQ(FrameKind::auth, classifyClientFrame("AUTH "));
  EXPECT_EQ(FrameKind::request, classifyClientFrame(R"(2{"id":-3,"path":"","method":""})"));
}

TEST(EmulatorFrames, MalformedFramesAreMalformedInTheWayTheirNameSays) {
  using Kind = SocketMessage::Kind;
  const std::pair<Malformed, Kind> cases[] = {
      {Malformed::notJson, Kind::unknown}, {Malformed::bareThree, Kind::unknown},
      {Malformed::list, Kind::event},      {Malformed::scalar, Kind::unknown},
      {Malformed::stringId, Kind::event},  {Malformed::invalidUtf8, Kind::unknown},
      {Malformed::empty, Kind::unknown},
  };
  for (const auto& [malformed, kind] : cases) {
    for (auto id : {std::optional<std::int64_t>(), std::optional<std::int64_t>(41)}) {
      EXPECT_EQ(kind, SocketMessage::create(malformedFrame(malformed, id).data).kind())
          << name(malformed);
    }
  }
  // The binary and huge frames would be well-formed as text: only their form is wrong.
  const auto binary = malformedFrame(Malformed::binary, 41);
  EXPECT_TRUE(binary.binary);
  ASSERT_EQ(Kind::response, SocketMessage::create(binary.data).kind());
  EXPECT_EQ(41, SocketMessage::create(binary.data).asResponse()->id);
  const auto huge = malformedFrame(Malformed::huge, 41, 5000);
  EXPECT_EQ(5000u, huge.data.size());
  EXPECT_EQ(Kind::response, SocketMessage::create(huge.data).kind());
  EXPECT_EQ(Kind::event,
            SocketMessage::create(malformedFrame(Malformed::huge, {}, 5000).data).kind());
  // A handler's invalid UTF-8 does not cost the client its answer.
  EXPECT_EQ(Kind::response,
            SocketMessage::create(responseFrame(10, Reply::ok(json("bad \xff")))).kind());
}

}  // namespace
}  // namespace kel::emulator
