#include "ServerClient/Utils/JsonCollection.h"

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

namespace kel {
namespace {

struct Invite {
  std::string room;
  double weight = 1;
};

void to_json(nlohmann::json& json, const Invite& invite) {
  json = {{"room", invite.room}, {"weight", invite.weight}};
}

struct Unencodable {};

void to_json(nlohmann::json& /*json*/, const Unencodable& /*value*/) {
  throw std::runtime_error("cannot encode");
}

// Runs `call` and returns the GenericError it throws.
template <class F>
GenericError genericErrorOf(F call) {
  try {
    call();
  } catch (const GenericError& error) {
    return error;
  }
  ADD_FAILURE() << "no GenericError thrown";
  return GenericError(GenericErrorType::unknown());
}

TEST(ToCollection, ReturnsTheEncodedObject) {
  EXPECT_EQ((nlohmann::json{{"room", "r1"}, {"weight", 0.5}}), toCollection(Invite{"r1", 0.5}));
}

TEST(ToCollection, AnythingButAFaithfulObjectIsAnEncodingError) {
  const auto encodingError = GenericErrorType::encoding("");
  for (const auto& error : {
           genericErrorOf([] {
             toCollection(std::vector<Invite>{{"r", 1}});
           }),
           genericErrorOf([] { toCollection(42); }),
           genericErrorOf([] { toCollection(Unencodable{}); }),
           genericErrorOf([] {
             toCollection(Invite{"r", std::nan("")});
           }),
           genericErrorOf([] {
             toCollection(Invite{"\xC3\x28", 1});
           }),
       }) {
    EXPECT_EQ(encodingError, error.type());
    EXPECT_EQ("", error.description());
  }
}

TEST(DataFor, ReturnsTheNestedObjectOrListPrettyPrinted) {
  EXPECT_EQ("{\n  \"id\": \"x\",\n  \"n\": [\n    1\n  ]\n}",
            dataFor(R"({"body":{"id":"x","n":[1]},"other":1})", "body"));
  EXPECT_EQ("[]", dataFor(R"({"list":[]})", "list"));
}

TEST(DataFor, AnythingElseIsADecodingErrorCarryingTheInput) {
  for (const std::string data : {
           R"({"body":5})",
           R"({"body":"text"})",
           R"({"body":true})",
           R"({"body":null})",
           R"({"other":{}})",
           R"([{"body":{}}])",
           R"({"body":)",
           "",
       }) {
    const auto error = genericErrorOf([&] { dataFor(data, "body"); });
    EXPECT_EQ(GenericErrorType::decoding(data), error.type()) << data;
    EXPECT_EQ("", error.description());
  }
  EXPECT_EQ(GenericErrorType::decoding(""),
            genericErrorOf([] { dataFor("{\"body\":{\"a\":\"\xFF\"}}", "body"); }).type());
}

}  // namespace
}  // namespace kel
