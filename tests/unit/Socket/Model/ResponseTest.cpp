#include "ServerClient/Socket/Model/ErrorCode.h"
#include "ServerClient/Socket/Model/Resource.h"

#include <gtest/gtest.h>

#include <climits>

#include "ServerClient/Common/Json.h"

namespace kel {
namespace {

using nlohmann::json;

TEST(ErrorCode, AnIntegerErrorOrAStatusFrom400Through500Fails) {
  const std::pair<const char*, std::optional<int>> cases[] = {
      {R"({"id":1,"status":399})", std::nullopt},
      {R"({"id":1,"status":400})", 400},
      {R"({"id":1,"status":500})", 500},
      {R"({"id":1,"status":501})", std::nullopt},
      {R"({"id":1,"status":-404})", std::nullopt},
      {R"({"id":1})", std::nullopt},
      {R"({"status":"404"})", std::nullopt},  // only JSON integers are statuses
      {R"({"status":404.0})", std::nullopt},
      {R"({"status":18446744073709551615})", std::nullopt},
      {R"({"id":1,"error":0})", 0},  // an integer error fails whatever its value
      {R"({"error":-3,"status":200})", -3},
      {R"({"error":7,"status":404})", 7},
      {R"({"error":18446744073709551615})", INT_MAX},  // clamped to int
      {R"({"error":-9223372036854775808})", INT_MIN},
      {R"({"error":"boom"})", std::nullopt},  // a non-integer error leaves it to the status
      {R"({"error":true,"status":403})", 403},
      {R"({"error":1.5})", std::nullopt},
      {R"([1])", std::nullopt},
  };
  for (const auto& [response, code] : cases) {
    EXPECT_EQ(code, errorCode(*parseJson(response))) << response;
  }
}

TEST(Resource, CarriesTheCompactBodyOfObjectsAndListsAndNothingElse) {
  const std::pair<const char*, const char*> cases[] = {
      {"{\"body\":{ \"a\" : [1, {\"b\": \"\\u00e9\"}] }}", "{\"a\":[1,{\"b\":\"\xc3\xa9\"}]}"},
      {R"({"body":[]})", "[]"},
      {R"({"id":12})", "{}"},
      {R"({"body":"text"})", ""},
      {R"({"body":42})", ""},
      {R"({"body":null})", ""},
  };
  for (const auto& [response, data] : cases) {
    EXPECT_EQ((Resource{"12", data}), Resource::fromResponse(12, *parseJson(response))) << response;
  }
  EXPECT_EQ("", Resource::fromResponse(1, json{{"body", {std::string("\xff")}}}).data);
}

}  // namespace
}  // namespace kel
