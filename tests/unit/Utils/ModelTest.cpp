#include "ServerClient/Utils/Model.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>

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
static_assert(ModelType<std::vector<Contact>>);

TEST(Model, DecodesOrFailsWithTheDataAndLogsTheDecodersText) {
  auto& log = ServerLog::sharedInstance();
  log.resetForTesting();
  std::ostringstream console;
  auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(console);
  sink->set_pattern("%v");
  log.setConsoleSink(sink);
  log.addLoggers(LogLevel::error, false);
  const auto logged = [&] {
    log.flush();
    return std::exchange(console, std::ostringstream()).str();
  };

  const auto list = Model::from<std::vector<Contact>>(R"([{"id":"a","age":3},{"id":"b","age":4}])");
  ASSERT_EQ(2u, list.size());
  EXPECT_EQ(4, list[1].age);
  EXPECT_EQ("", logged());

  const struct {
    std::string data;
    std::string carried;
    std::string logged;
  } cases[] = {
      {R"({"id":"a","age":"old"})", R"({"id":"a","age":"old"})",
       " from(data:)]: Decode error: [json.exception.type_error"},
      {"{\"id\":", "{\"id\":", "Decode error: "},
      {"\xFF\xFE", "", "Decode error: "},
  };
  for (const auto& c : cases) {
    try {
      Model::from<Contact>(c.data);
      ADD_FAILURE() << c.data;
    } catch (const GenericError& error) {
      EXPECT_EQ(GenericErrorType::decoding(c.carried), error.type());
      EXPECT_EQ("", error.description());
    }
    const auto line = logged();
    EXPECT_NE(std::string::npos, line.find(c.logged)) << line;
    EXPECT_TRUE(line.starts_with("SDKLog - KEL - [Model]:[")) << line;
  }
  log.resetForTesting();
}

}  // namespace
}  // namespace kel
