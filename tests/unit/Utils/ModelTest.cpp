#include "ServerClient/Utils/Model.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>

#include <algorithm>
#include <sstream>

#include "ServerClient/Log/ServerLog.h"

namespace kel {
namespace {

struct Contact {
  std::string id;
  int age = 0;
};
void from_json(const nlohmann::json& json, Contact& contact) {
  json.at("id").get_to(contact.id);
  json.at("age").get_to(contact.age);
}

// Decoding itself is Common's; Model adds the log line naming the decoder's complaint.
TEST(Model, AFailureCarriesTheDataAndLogsTheDecodersText) {
  auto& log = ServerLog::sharedInstance();
  log.resetForTesting();
  std::ostringstream console;
  auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(console);
  sink->set_pattern("%v");
  log.setConsoleSink(sink);
  log.addLoggers(LogLevel::error, false);

  EXPECT_EQ(4, Model::from<std::vector<Contact>>(R"([{"id":"b","age":4}])").at(0).age);
  const std::string data = R"({"id":"a","age":"old"})";
  try {
    Model::from<Contact>(data);
    ADD_FAILURE() << "decoded";
  } catch (const GenericError& error) {
    EXPECT_EQ(GenericErrorType::decoding(data), error.type());
    EXPECT_EQ("", error.description());
  }
  log.flush();
  const auto line = console.str();
  log.resetForTesting();
  EXPECT_TRUE(line.starts_with("SDKLog - KEL - [Model]:[")) << line;
  EXPECT_NE(std::string::npos, line.find(" from(data:)]: Decode error: [json.exception.type_error"))
      << line;
  EXPECT_EQ(1, std::count(line.begin(), line.end(), '\n')) << "one line, for the failure only";
}

}  // namespace
}  // namespace kel
