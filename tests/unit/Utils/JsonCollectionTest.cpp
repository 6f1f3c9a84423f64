#include "ServerClient/Utils/JsonCollection.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <stdexcept>

#include "support/Thrown.h"

namespace kel {
namespace {

struct Invite {
  std::string room;
  double weight = 1;
};
void to_json(nlohmann::json& out, const Invite& invite) {
  out = {{"room", invite.room}, {"weight", invite.weight}};
}
struct Unencodable {};
void to_json(nlohmann::json&, const Unencodable&) {
  throw std::runtime_error("cannot encode");
}

// The type of the GenericError `call` throws, which has no description.
GenericErrorType errorOf(const std::function<void()>& call) {
  const auto error = test::thrown<GenericError>(call).value();
  EXPECT_EQ("", error.description());
  return error.type();
}

TEST(ToCollection, OnlyAFaithfulObjectIsEncoded) {
  EXPECT_EQ((nlohmann::json{{"room", "r1"}, {"weight", 0.5}}), toCollection(Invite{"r1", 0.5}));
  const std::function<void()> failing[] = {
      [] {
        toCollection(std::vector<Invite>{{"r", 1}});
      },
      [] { toCollection(42); },
      [] { toCollection(Unencodable{}); },
      [] {
        toCollection(Invite{"r", std::nan("")});
      },
      [] {
        toCollection(Invite{"\xC3\x28", 1});
      },
  };
  for (const auto& call : failing) EXPECT_EQ(GenericErrorType::encoding(""), errorOf(call));
}

TEST(DataFor, OnlyANestedObjectOrListIsReturnedPrettyPrinted) {
  EXPECT_EQ("{\n  \"id\": \"x\",\n  \"n\": [\n    1\n  ]\n}",
            dataFor(R"({"body":{"id":"x","n":[1]},"other":1})", "body"));
  EXPECT_EQ("[]", dataFor(R"({"list":[]})", "list"));
  for (const std::string data : {R"({"body":5})", R"({"body":null})", R"({"other":{}})",
                                 R"([{"body":{}}])", R"({"body":)", ""}) {
    EXPECT_EQ(GenericErrorType::decoding(data), errorOf([&] { dataFor(data, "body"); })) << data;
  }
  EXPECT_EQ(GenericErrorType::decoding(""),
            errorOf([] { dataFor("{\"body\":{\"a\":\"\xFF\"}}", "body"); }));
}

}  // namespace
}  // namespace kel
