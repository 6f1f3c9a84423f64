#include "ServerClient/Auth/Model/AuthenticationData.h"

#include <gtest/gtest.h>

#include <chrono>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/Decoding.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Utils/Description.h"
#include "ServerClient/Utils/JsonCollection.h"
#include "support/SignInAnswer.h"
#include "support/Thrown.h"

namespace kel {
namespace {

using nlohmann::json;
using namespace std::chrono;
using Texts = std::vector<std::string>;

json userJson() {
  auto user = testing::userRecord("u1");
  user["mobilePhone"] = {"+100", "+200"};
  return user;
}

// Distinct tokens and a date in text form, so that each is seen to come from its own member.
json answerJson() {
  auto answer = json::parse(testing::signInAnswer({"presence"}));
  answer["access_token"] = "tok";
  answer["session"]["from"] = "2024-05-06T10:11:12.345Z";
  answer["session"]["userObj"] = userJson();
  answer["credential"]["data"] = {{"password", "pw"}};
  return answer;
}

/// The GenericError thrown by decoding `document` as T.
template <class T>
GenericError decodingError(const json& document) {
  return test::thrown<GenericError>([&] { from<T>(document.dump()); }).value();
}

TEST(AuthenticationDataTest, DecodesTheSignInAnswer) {
  const auto data = from<AuthenticationData>(answerJson().dump());
  EXPECT_EQ("tok", data.token);
  EXPECT_EQ("T1", data.session.token);
  EXPECT_EQ(1700003600000, data.session.to);
  EXPECT_EQ("u1", data.user.userId);
  EXPECT_EQ("kel-user:u1", data.user.kelUri());
  EXPECT_EQ(1, data.credential.lease);
  EXPECT_EQ("pw", data.credential.gatewayCredential.at("password"));
  ASSERT_NE(nullptr, data.capabilities);
  EXPECT_EQ((Texts{"presence"}), data.capabilities->domain);
  EXPECT_FALSE(data.permissions);
  // The text form shows neither token.
  const auto text = description(data);
  EXPECT_EQ(0u, text.find("***** ServerClient.AuthenticationData *****\ntoken: <redacted>\n"
                          "tokenType: Bearer\nsession: Session(token: <redacted>, "
                          "from: 2024-05-06T10:11:12.345Z, sessionID: \"S1\""))
      << text;
}

TEST(AuthenticationDataTest, AnyMissingOrMistypedRequiredKeyFailsWithTheDecodingError) {
  for (const char* path :
       {"/access_token", "/token_type", "/session", "/credential", "/capabilities",
        "/session/userObj", "/session/from", "/session/to", "/session/id", "/credential/lease",
        "/credential/data", "/capabilities/user", "/session/userObj/alias",
        "/session/userObj/mobilePhone", "/session/userObj/role"}) {
    const json::json_pointer pointer(path);
    SCOPED_TRACE(path);
    auto document = answerJson();
    document[pointer.parent_pointer()].erase(pointer.back());
    const auto error = decodingError<AuthenticationData>(document);
    EXPECT_EQ(GenericErrorType::Kind::decoding, error.type().kind());
    EXPECT_EQ(document.dump(), error.type().text());
  }

  const std::vector<std::pair<json::json_pointer, json>> mistyped = {
      {"/credential/lease"_json_pointer, 3600.0},
      {"/credential/lease"_json_pointer, "3600"},
      {"/session/to"_json_pointer, 1.5},
      {"/credential/data"_json_pointer, {{"k", 1}}},
      {"/capabilities/domain"_json_pointer, "presence"},
      {"/session/userObj/mobilePhone"_json_pointer, "+100"},
      {"/session/userObj/gatewayUsername"_json_pointer, 7},
      {"/session/from"_json_pointer, true},
  };
  for (const auto& [pointer, value] : mistyped) {
    SCOPED_TRACE(pointer.to_string() + " = " + value.dump());
    auto document = answerJson();
    document[pointer] = value;
    EXPECT_EQ(GenericErrorType::Kind::decoding,
              decodingError<AuthenticationData>(document).type().kind());
  }
}

TEST(AuthenticationDataTest, SessionDateForms) {
  const auto expected = sys_days(2024y / May / 6) + 10h + 11min + 12s;
  EXPECT_EQ(expected, parseSessionDate("2024-05-06T10:11:12Z"));
  EXPECT_EQ(expected, parseSessionDate("2024-05-06T12:41:12+02:30"));
  EXPECT_EQ(expected, parseSessionDate("2024-05-06T09:11:12-01:00"));
  EXPECT_EQ(expected + 123456789ns, parseSessionDate("2024-05-06T10:11:12.123456789Z"));
  for (const char* bad :
       {"", "2024-05-06", "2024-05-06T10:11:12", "2024-05-06T24:00:00Z", "2024-05-06T10:11:12.Z",
        "2024-05-06T10:11:12.1234567891Z", "2024-05-06T10:11:12Zjunk", "2024-5-06T10:11:12Z",
        "1012-05-01T09:00:00Z"}) {
    EXPECT_EQ(std::nullopt, parseSessionDate(bad)) << bad;
  }
  // The formatted form reads back; a JSON integer is milliseconds since the epoch.
  EXPECT_EQ(expected + 5ms, parseSessionDate(formatSessionDate(expected + 5ms)));
  auto document = answerJson();
  document["session"]["from"] = 1714990272000;
  EXPECT_EQ(expected, from<AuthenticationData>(document.dump()).session.from);
}

TEST(UserTest, GatewayUsernameIsReadButNeverWritten) {
  auto document = userJson();
  document["gatewayUsername"] = "ann.gw";
  auto user = from<User>(document.dump());
  EXPECT_EQ("ann.gw", user.gatewayUsername);

  document["gatewayUsername"] = nullptr;
  EXPECT_EQ(std::nullopt, from<User>(document.dump()).gatewayUsername);

  const auto encoded = toCollection(user);
  EXPECT_EQ(userJson(), encoded);  // without gatewayUsername
  EXPECT_EQ(R"({"id":"u1","alias":"a","domain":"d","email":"e","username":"n",)"
            R"("mobilePhone":["+100","+200"],"role":"user"})",
            nlohmann::ordered_json(user).dump());
}

TEST(CapabilitiesTest, ActiveCombinesDomainDefaultsAndUserAdjustments) {
  const auto active = [](Texts domain, Texts user) {
    return Capabilities(std::move(domain), std::move(user)).active();
  };
  EXPECT_EQ(Capabilities::defaults(), active({}, {}));
  EXPECT_EQ((Texts{"chat", "audio-call", "audio-call", "media-update", "multicall", "conferences",
                   "conference-hold", "screen-share"}),
            active({"chat", "audio-call"}, {"-video-call", "+screen-share"}));
  // Removing every default leaves nothing; unsigned entries are ignored.
  EXPECT_EQ(Texts{}, active({}, {"-audio-call", "-video-call", "-media-update", "-multicall",
                                 "-conferences", "-conference-hold", "presence"}));
  // A removal hides the domain's entry and the default, yet the same name added comes back last.
  EXPECT_EQ((Texts{"video-call", "media-update", "multicall", "conferences", "conference-hold",
                   "audio-call"}),
            active({"audio-call"}, {"-audio-call", "+audio-call"}));
  // Exact comparison: "Presence" is not "presence"; a lone sign names the empty capability.
  EXPECT_EQ((Texts{"Presence", "audio-call", "video-call", "media-update", "multicall",
                   "conferences", "conference-hold", ""}),
            active({"Presence"}, {"-presence", "+"}));
}

TEST(PermissionsTest, DecodesOptionalMembersAndChecksTheRecordingType) {
  auto granted = [](const json& recording, std::string_view type) {
    return from<Permissions>(json{{"recording", recording}, {"voicemail", json::object()}}.dump())
        .recordingTypeGranted(type);
  };
  EXPECT_FALSE(granted(json::object(), ""));
  EXPECT_TRUE(granted({{"recordingType", ""}}, ""));
  EXPECT_FALSE(granted({{"recordingType", "always"}}, "Always"));
  EXPECT_EQ(
      false,
      from<Permissions>(R"({"recording": {}, "voicemail": {"enabled": false}})").voicemail.enabled);
  for (const json& document :
       {json{{"recording", json::object()}},
        json{{"recording", json::object()}, {"voicemail", {{"enabled", "yes"}}}}}) {
    EXPECT_EQ(GenericErrorType::Kind::decoding, decodingError<Permissions>(document).type().kind());
  }
}

}  // namespace
}  // namespace kel
