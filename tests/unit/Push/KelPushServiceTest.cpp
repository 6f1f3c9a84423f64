#include "ServerClient/Push/KelPushService.h"

#include <gtest/gtest.h>

#include <memory>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/SDKError.h"
#include "support/FakeSocketClient.h"
#include "support/StreamRecorder.h"

namespace kel {
namespace {

using nlohmann::json;
using testing::FakeSocketClient;
using testing::StreamRecorder;

class KelPushServiceTest : public ::testing::Test {
 protected:
  std::shared_ptr<FakeSocketClient> client_ = std::make_shared<FakeSocketClient>();
  SocketClientSlot slot_{client_};
  KelPushService service_{slot_};
};

TEST_F(KelPushServiceTest, RegistersAndRemovesTheTokenOnOnePath) {
  client_->queueReply(FakeSocketClient::Reply::withBody({{"ignored", 1}}));
  StreamRecorder registered(service_.sendPushToken("tok", false, "device-1"));
  auto request = client_->lastRequest();
  EXPECT_EQ("/pushNotifications", request.at("path"));
  EXPECT_EQ("POST", request.at("method"));
  EXPECT_EQ((json{{"deviceId", "device-1"},
                  {"tokenType", "apn"},
                  {"token", "tok"},
                  {"options", {{"isProduction", false}}}}),
            request.at("body"));
  EXPECT_EQ(1u, registered.values().size());
  EXPECT_TRUE(registered.completed());

  client_->queueReply(FakeSocketClient::Reply::withBody(json::array()));
  StreamRecorder production(service_.sendPushToken("tok", true, "device-1"));
  EXPECT_EQ(true, client_->lastRequest().at("body").at("options").at("isProduction"));

  client_->queueReply(FakeSocketClient::Reply::withBody(json::object()));
  StreamRecorder removed(service_.deletePushToken("device-1"));
  request = client_->lastRequest();
  EXPECT_EQ("/pushNotifications", request.at("path"));
  EXPECT_EQ("DELETE", request.at("method"));
  EXPECT_EQ((json{{"deviceId", "device-1"}}), request.at("body"));
  EXPECT_EQ(1u, removed.values().size());
}

TEST_F(KelPushServiceTest, ServerErrorsPassThrough) {
  client_->queueReply(
      FakeSocketClient::Reply::failure(makeError(ConnectionError::mapToOvError(403))));
  StreamRecorder result(service_.deletePushToken("device-1"));
  const auto* error = errorAs<ConnectionError>(result.error());
  ASSERT_NE(nullptr, error);
  EXPECT_EQ(ConnectionErrorType::forbidden, error->type());
  EXPECT_TRUE(result.values().empty());
}

}  // namespace
}  // namespace kel
