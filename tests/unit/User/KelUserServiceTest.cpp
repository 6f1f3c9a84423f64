#include "ServerClient/User/KelUserService.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/Decoding.h"
#include "ServerClient/Common/SDKError.h"
#include "support/FakeSocketClient.h"
#include "support/StreamRecorder.h"

namespace kel {
namespace {

using nlohmann::json;
using testing::FakeSocketClient;
using testing::StreamRecorder;

json userJson(const std::string& id) {
  return {{"id", id},          {"domain", "example.org"}, {"email", "ann@example.org"},
          {"username", "ann"}, {"alias", "Ann"},          {"mobilePhone", {"+100"}},
          {"role", "user"}};
}

class KelUserServiceTest : public ::testing::Test {
 protected:
  std::shared_ptr<FakeSocketClient> client_ = std::make_shared<FakeSocketClient>();
  SocketClientSlot slot_{client_};
  KelUserService service_{slot_};

  std::int64_t lastId() const { return client_->lastRequest().at("id").get<std::int64_t>(); }
  void expectRequest(const std::string& path, const std::string& method, const json& body) {
    const auto request = client_->lastRequest();
    EXPECT_EQ(path, request.at("path"));
    EXPECT_EQ(method, request.at("method"));
    EXPECT_EQ(body, request.at("body"));
  }
};

TEST_F(KelUserServiceTest, ReadsAUserByIdAndFailsWithTheDecodingErrorForAnythingElse) {
  StreamRecorder result(service_.user("u 1"));
  expectRequest("/users/u 1", "GET", json::object());
  client_->respond(lastId(), userJson("u 1"));
  ASSERT_EQ(1u, result.values().size());
  EXPECT_EQ("u 1", result.values().front().userId);

  StreamRecorder broken(service_.user("u1"));
  auto incomplete = userJson("u1");
  incomplete.erase("alias");
  client_->respond(lastId(), incomplete);
  const auto* error = errorAs<GenericError>(broken.error());
  ASSERT_NE(nullptr, error);
  EXPECT_EQ(GenericErrorType::decoding(incomplete.dump()), error->type());
}

TEST_F(KelUserServiceTest, UpdateSendsTheEncodedUserAndDecodesEachAnswer) {
  auto user = from<User>(userJson("u1").dump());
  user.gatewayUsername = "local-only";
  user.alias = "Annie";
  StreamRecorder result(service_.update(user));
  auto expectedBody = userJson("u1");
  expectedBody["alias"] = "Annie";
  expectRequest("/users/u1", "PUT", expectedBody);

  client_->respond(lastId(), expectedBody);
  ASSERT_EQ(1u, result.values().size());
  EXPECT_EQ("Annie", result.values().front().alias);
  EXPECT_EQ(std::nullopt, result.values().front().gatewayUsername);
  EXPECT_TRUE(result.completed());
}

TEST_F(KelUserServiceTest, AUserThatCannotBeEncodedFailsWithoutSending) {
  auto user = from<User>(userJson("u1").dump());
  user.alias = "\xff\xfe";  // not UTF-8: no valid JSON text can carry it
  StreamRecorder result(service_.update(user));
  const auto* error = errorAs<GenericError>(result.error());
  ASSERT_NE(nullptr, error);
  EXPECT_EQ(GenericErrorType::encoding(""), error->type());
  EXPECT_TRUE(client_->requests().empty());
}

TEST_F(KelUserServiceTest, FetchesCapabilities) {
  StreamRecorder result(service_.fetchCapabilities());
  expectRequest("capabilities", "GET", json::object());

  client_->respond(lastId(), {{"domain", {"presence"}}, {"user", {"+chat"}}});
  ASSERT_EQ(1u, result.values().size());
  EXPECT_EQ("chat", result.values().front()->active().back());
}

}  // namespace
}  // namespace kel
