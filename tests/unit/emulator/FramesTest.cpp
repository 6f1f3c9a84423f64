// The emulator's frames, read back with the library's own classification: whatever the emulator
// claims a frame is, the client must see it the same way. Well-formed answers and events are read
// by the library in every integration test. And how frames and other texts reach the log.

#include <gtest/gtest.h>

#include "ServerClient/Socket/Model/SocketMessage.h"
#include "emulator/Fault.h"
#include "emulator/Frames.h"
#include "emulator/LogText.h"

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

TEST(EmulatorLogText, ControlCharactersAreEscapedSecretsShortenedAndEverythingElsePasses) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"plain text, grüße ✓ \\ \"", "plain text, grüße ✓ \\ \""},
      {"line\nforged", "line\\nforged"},
      {"\r\t\a\x1b[2J", "\\x0d\\x09\\x07\\x1b[2J"},
      {std::string("nul\0del\x7f", 8), "nul\\x00del\\x7f"},
  };
  for (const auto& [raw, logged] : cases) EXPECT_EQ(logged, escapeForLog(raw)) << logged;

  // Secrets are shortened wherever they appear.
  const std::string token = "0123456789abcdef0123";
  EXPECT_EQ("0123...(20 chars)", redactSecret(token));
  EXPECT_EQ("...(6 chars)", redactSecret("short1"));

  const std::vector<std::pair<std::string, std::string>> frames{
      {"AUTH " + token, "AUTH 0123...(20 chars)"},
      {R"(2{"id":1,"body":{"token":")" + token + R"(","Password":"pw","n":"x"}})",
       R"j(2{"body":{"Password":"...(2 chars)","n":"x","token":"0123...(20 chars)"},"id":1})j"},
      {R"(3[{"accessToken":")" + token + R"("}])", R"j(3[{"accessToken":"0123...(20 chars)"}])j"},
      {"2{not json", "2{not json"},
  };
  for (const auto& [frame, logged] : frames) EXPECT_EQ(logged, frameForLog(frame)) << logged;
  EXPECT_EQ("xxxxx... (8 bytes)", frameForLog("xxxxxxxx", 5));

  EXPECT_EQ("/login?user=a&sessionToken=0123...(20 chars)&x",
            targetForLog("/login?user=a&sessionToken=" + token + "&x"));
  EXPECT_EQ("/plain", targetForLog("/plain"));
}

}  // namespace
}  // namespace kel::emulator
