#include "ServerClient/Socket/Model/ErrorCode.h"
#include "ServerClient/Socket/Model/Resource.h"

#include <gtest/gtest.h>

#include <climits>

#include "ServerClient/Common/Json.h"

namespace kel {
namespace {

using nlohmann::json;

std::optional<int> codeOf(const char* response) {
  return errorCode(*parseJson(response));
}

TEST(ErrorCode, StatusFailsFrom400Through500Inclusive) {
  EXPECT_EQ(std::nullopt, codeOf(R"({"id":1,"status":399})"));
  EXPECT_EQ(400, codeOf(R"({"id":1,"status":400})"));
  EXPECT_EQ(404, codeOf(R"({"id":1,"status":404})"));
  EXPECT_EQ(500, codeOf(R"({"id":1,"status":500})"));
  EXPECT_EQ(std::nullopt, codeOf(R"({"id":1,"status":501})"));
  EXPECT_EQ(std::nullopt, codeOf(R"({"id":1,"status":200})"));
  EXPECT_EQ(std::nullopt, codeOf(R"({"id":1,"status":-404})"));
  EXPECT_EQ(std::nullopt, codeOf(R"({"id":1})"));
  // Only JSON integers are statuses.
  EXPECT_EQ(std::nullopt, codeOf(R"({"status":"404"})"));
  EXPECT_EQ(std::nullopt, codeOf(R"({"status":404.0})"));
  EXPECT_EQ(std::nullopt, codeOf(R"({"status":18446744073709551615})"));
}

TEST(ErrorCode, AnIntegerErrorFailsWhateverItsValueAndWinsOverStatus) {
  EXPECT_EQ(0, codeOf(R"({"id":1,"error":0})"));
  EXPECT_EQ(-3, codeOf(R"({"error":-3,"status":200})"));
  EXPECT_EQ(7, codeOf(R"({"error":7,"status":404})"));
  EXPECT_EQ(200, codeOf(R"({"error":200})"));
  // Out of int's range it still fails, clamped.
  EXPECT_EQ(INT_MAX, codeOf(R"({"error":18446744073709551615})"));
  EXPECT_EQ(INT_MAX, codeOf(R"({"error":4294967296})"));
  EXPECT_EQ(INT_MIN, codeOf(R"({"error":-9223372036854775808})"));
  // A non-integer error is no error code; the status decides.
  EXPECT_EQ(std::nullopt, codeOf(R"({"error":"boom"})"));
  EXPECT_EQ(std::nullopt, codeOf(R"({"error":null,"status":200})"));
  EXPECT_EQ(403, codeOf(R"({"error":true,"status":403})"));
  EXPECT_EQ(std::nullopt, codeOf(R"({"error":1.5})"));
  EXPECT_EQ(std::nullopt, errorCode(json::array({1})));
}

Resource resourceOf(const char* response) {
  return Resource::fromResponse(12, *parseJson(response));
}

TEST(Resource, CarriesTheCompactBodyOfObjectsAndLists) {
  EXPECT_EQ((Resource{"12", "{\"a\":[1,{\"b\":\"\xc3\xa9\"}]}"}),
            resourceOf("{\"id\":12,\"body\":{ \"a\" : [1, {\"b\": \"\\u00e9\"}] }}"))
      << "re-serialised compactly, UTF-8 written out";
  EXPECT_EQ("[]", resourceOf(R"({"id":12,"body":[]})").data);
  EXPECT_EQ("{}", resourceOf(R"({"id":12})").data);  // missing body
  EXPECT_EQ("-5", Resource::fromResponse(-5, json::object()).requestID);
}

TEST(Resource, BodiesThatAreNotObjectsOrListsGiveEmptyData) {
  for (const char* response : {R"({"body":"text"})", R"({"body":""})", R"({"body":42})",
                               R"({"body":true})", R"({"body":null})"}) {
    EXPECT_EQ((Resource{"12", ""}), resourceOf(response)) << response;
  }
  EXPECT_EQ("", Resource::fromResponse(1, json{{"body", std::string("\xff")}}).data);
  EXPECT_EQ("", Resource::fromResponse(1, json{{"body", {std::string("\xff")}}}).data);
}

}  // namespace
}  // namespace kel
