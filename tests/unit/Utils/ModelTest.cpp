#include "ServerClient/Utils/Model.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ServerClient/Log/ServerLog.h"
#include "ServerClient/Utils/UnretainedError.h"

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

struct NotARecord {};

static_assert(ModelType<Contact>);
static_assert(ModelType<std::vector<Contact>>);
static_assert(!ModelType<NotARecord>);

class ModelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_.resetForTesting();
    auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(console_);
    sink->set_pattern("%v");
    log_.setConsoleSink(sink);
    log_.addLoggers(LogLevel::error, false);
  }
  void TearDown() override { log_.resetForTesting(); }

  // Decodes, expecting failure; returns the error and what was logged.
  template <class T>
  std::pair<GenericError, std::string> failure(std::string_view data) {
    try {
      Model::from<T>(data);
    } catch (const GenericError& error) {
      log_.flush();
      return {error, console_.str()};
    }
    ADD_FAILURE() << "decoding did not fail";
    return {GenericError(GenericErrorType::unknown()), {}};
  }

  ServerLog& log_ = ServerLog::sharedInstance();
  std::ostringstream console_;
};

TEST_F(ModelTest, DecodesRecordsAndListsOfRecords) {
  const auto list = Model::from<std::vector<Contact>>(R"([{"id":"a","age":3},{"id":"b","age":4}])");
  ASSERT_EQ(2u, list.size());
  EXPECT_EQ("b", list[1].id);
  EXPECT_EQ(4, list[1].age);
  log_.flush();
  EXPECT_EQ("", console_.str());
}

TEST_F(ModelTest, FailureCarriesTheDataAndLogsTheDecoderText) {
  const std::string data = R"({"id":"a","age":"old"})";
  const auto [error, logged] = failure<Contact>(data);
  EXPECT_EQ(GenericErrorType::decoding(data), error.type());
  EXPECT_EQ("", error.description());
  const std::string prefix = "SDKLog - KEL - [Model]:[";
  ASSERT_EQ(0u, logged.rfind(prefix, 0)) << logged;
  EXPECT_NE(std::string::npos,
            logged.find(" from(data:)]: Decode error: [json.exception.type_error"))
      << logged;
}

TEST_F(ModelTest, MalformedOrNonUtf8DataFails) {
  const auto [malformed, logged] = failure<Contact>("{\"id\":");
  EXPECT_EQ(GenericErrorType::decoding("{\"id\":"), malformed.type());
  EXPECT_NE(std::string::npos, logged.find("Decode error: "));

  const auto [binary, ignored] = failure<Contact>("\xFF\xFE");
  EXPECT_EQ(GenericErrorType::decoding(""), binary.type());
}

TEST(UnretainedError, IsNotAnSDKErrorSoItTravelsAsUnderlying) {
  const auto converted = toSDKError(std::make_exception_ptr(UnretainedError::failedRetaining()));
  const auto* generic = errorAs<GenericError>(converted);
  ASSERT_NE(nullptr, generic);
  EXPECT_EQ(GenericErrorType::Kind::underlying, generic->type().kind());
  ASSERT_NE(nullptr, errorAs<UnretainedError>(generic->type().underlyingError()));
  EXPECT_EQ(UnretainedError::Kind::failedRetaining,
            errorAs<UnretainedError>(generic->type().underlyingError())->kind());
}

}  // namespace
}  // namespace kel
