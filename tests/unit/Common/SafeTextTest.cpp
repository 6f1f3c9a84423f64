#include "ServerClient/Common/SafeText.h"

#include <gtest/gtest.h>

namespace kel {
namespace {

TEST(SafeText, RedactsSecretValuesWhereverTheyAreWritten) {
  struct Case {
    std::string_view in;
    std::string_view out;
  };
  for (const auto& [in, out] : {
           // JSON members of every type, a cut-off string, and JSON held inside a string.
           Case{R"({"access_token": "S1", "n": 1})", R"({"access_token": "<redacted>", "n": 1})"},
           Case{R"({"password":1234,"user":"u"})", R"({"password":<redacted>,"user":"u"})"},
           Case{R"({"Secret":{"a":[1,"}"]},"x":2})", R"({"Secret":<redacted>,"x":2})"},
           Case{R"({"token":["S1","S2"]})", R"({"token":<redacted>})"},
           Case{R"({"user":"u","sessionToken":"S1)", R"({"user":"u","sessionToken":"<redacted>)"},
           Case{R"("{\"token\":\"S1\",\"a\":1}")", R"("{\"token\":\"<redacted>\",\"a\":1}")"},
           Case{R"({"token":"a\"S1","b":2})", R"({"token":"<redacted>","b":2})"},
           // Headers, query and cookie pairs, schemes, frames.
           Case{"Authorization: Bearer S1 S2\nnext", "Authorization: <redacted>\nnext"},
           Case{"Cookie: sid=S1; other=S2", "Cookie: <redacted>"},
           Case{"set-cookie: sid=S1", "set-cookie: <redacted>"},
           Case{"GET /x?token=S1&page=2", "GET /x?token=<redacted>&page=2"},
           Case{"sent bearer S1, done", "sent bearer <redacted>, done"},
           Case{"AUTH S1", "AUTH <redacted>"},
           // A "field: value" line of a record's text form.
           Case{"***** R *****\npassword: two words\nid: 7",
                "***** R *****\npassword: <redacted>\nid: 7"},
           // Credentials in URLs.
           Case{"Connecting to wss://user:S1@kel.test:443/ws",
                "Connecting to wss://<redacted>@kel.test:443/ws"},
           Case{"http://u:p@ss:S1@h/x?y", "http://<redacted>@h/x?y"},
           // Left alone: prose, non-secret names, URLs without credentials.
           Case{"Error saving token: keychain locked", "Error saving token: keychain locked"},
           Case{"No token to restore the session", "No token to restore the session"},
           Case{R"({"sessionID":"s-1","credentialId":"c"})",
                R"({"sessionID":"s-1","credentialId":"c"})"},
           Case{"POST https://kel.test/login/sessionToken",
                "POST https://kel.test/login/sessionToken"},
       }) {
    EXPECT_EQ(out, redactSecrets(in)) << in;
  }
}

TEST(SafeText, CutsLongTextsOnACharacterBoundaryAndSaysHowLongTheyWere) {
  EXPECT_EQ("short", truncateForDisplay("short", 5));
  EXPECT_EQ("ab\u2026 (6 bytes)", truncateForDisplay("abcdef", 2));
  // "é" is two bytes: a cut inside it moves before it.
  EXPECT_EQ("a\u2026 (5 bytes)", truncateForDisplay("a\u00e9cd", 2));

  const std::string mebibyte = R"({"token":")" + std::string(1 << 20, 'x') + "\"}";
  const auto shown = displayText(mebibyte);
  EXPECT_LT(shown.size(), 100u) << "the secret went first, so nothing long is left";
  const auto big = displayText(std::string(1 << 20, 'y'));
  EXPECT_EQ(kDisplayLimit + std::string("\u2026 (1048576 bytes)").size(), big.size());
  EXPECT_TRUE(big.ends_with("\u2026 (1048576 bytes)"));
}

TEST(SafeText, EscapesTerminalControlsAndKeepsPrintableUtf8) {
  struct Case {
    std::string in;
    std::string_view out;
  };
  for (const auto& [in, out] : {
           Case{"plain \u00e9t\u00e9 \u2713", "plain \u00e9t\u00e9 \u2713"},
           Case{"a\nb", "a\\nb"},
           Case{"\x1b[2J\x07\r\t", "\\x1b[2J\\x07\\x0d\\x09"},
           Case{std::string("nul\0end", 7), "nul\\x00end"},
           Case{"del\x7f", "del\\x7f"},
           Case{"csi\u009b31m", "csi\\x9b31m"},     // C1, as UTF-8
           Case{"bad\xff\xc3", "bad\\xff\\xc3"},    // invalid, and a cut sequence
           Case{"over\xc0\xaf", "over\\xc0\\xaf"},  // overlong "/"
           Case{"surrogate\xed\xa0\x80", "surrogate\\xed\\xa0\\x80"},
       }) {
    EXPECT_EQ(out, escapeControlCharacters(in)) << out;
  }
}

}  // namespace
}  // namespace kel
