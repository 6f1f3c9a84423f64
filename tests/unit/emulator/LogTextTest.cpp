#include <gtest/gtest.h>

#include "emulator/LogText.h"

namespace kel::emulator {
namespace {

TEST(EmulatorLogText, ControlCharactersAreEscapedAndEverythingElsePasses) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"plain text, grüße ✓ \\ \"", "plain text, grüße ✓ \\ \""},
      {"line\nforged", "line\\nforged"},
      {"\r\t\a\x1b[2J", "\\x0d\\x09\\x07\\x1b[2J"},
      {std::string("nul\0del\x7f", 8), "nul\\x00del\\x7f"},
  };
  for (const auto& [raw, logged] : cases) EXPECT_EQ(logged, escapeForLog(raw)) << logged;
}

TEST(EmulatorLogText, SecretsAreShortenedWhereverTheyAppear) {
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
