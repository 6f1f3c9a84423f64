#include "ServerClient/Utils/Model.h"

#include <gtest/gtest.h>

#include "ServerClient/Log/ServerLog.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"

namespace kel {
namespace {

struct Person {
  std::string id;
  int age = 0;
};
void from_json(const nlohmann::json& json, Person& contact) {
  json.at("id").get_to(contact.id);
  json.at("age").get_to(contact.age);
}

// Decoding itself is Common's; Model adds the log line naming the decoder's complaint.
TEST(Model, AFailureCarriesTheDataAndLogsTheDecodersText) {
  testing::LogCapture log;
  ServerLog::sharedInstance().addLoggers(LogLevel::error, false);  // the complaint is an error
  EXPECT_EQ(4, Model::from<std::vector<Person>>(R"([{"id":"b","age":4}])").at(0).age);
  const std::string data = R"({"id":"a","age":"old"})";
  const auto error = test::thrown<GenericError>([&] { Model::from<Person>(data); }).value();
  EXPECT_EQ(GenericErrorType::decoding(data), error.type());
  EXPECT_EQ("", error.description());
  const auto lines = log.lines();
  ASSERT_EQ(1u, lines.size()) << "one line, for the failure only";
  EXPECT_TRUE(lines[0].starts_with("SDKLog - KEL - [Model]:[")) << lines[0];
  EXPECT_NE(std::string::npos,
            lines[0].find(" from(data:)]: Decode error: [json.exception.type_error"))
      << lines[0];
}

}  // namespace
}  // namespace kel
