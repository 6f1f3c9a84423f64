#include "ServerClient/Push/KelPushService.h"

#include <gtest/gtest.h>

#include <functional>

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

TEST_F(KelPushServiceTest, RegistersAndRemovesTheTokenOnOnePathAndPassesServerErrorsOn) {
  const struct {
    std::function<rx::Single<rx::Unit>()> call;
    std::string method;
    json body;
  } operations[] = {
      {[&] { return service_.sendPushToken("tok", false, "device-1"); },
       "POST",
       {{"deviceId", "device-1"},
        {"tokenType", "apn"},
        {"token", "tok"},
        {"options", {{"isProduction", false}}}}},
      {[&] { return service_.sendPushToken("tok", true, "device-1"); },
       "POST",
       {{"deviceId", "device-1"},
        {"tokenType", "apn"},
        {"token", "tok"},
        {"options", {{"isProduction", true}}}}},
      {[&] { return service_.deletePushToken("device-1"); }, "DELETE", {{"deviceId", "device-1"}}},
  };
  for (const auto& operation : operations) {
    client_->queueReply(FakeSocketClient::Reply::withBody({{"ignored", 1}}));
    StreamRecorder done(operation.call());
    const auto request = client_->lastRequest();
    EXPECT_EQ("/pushNotifications", request.at("path"));
    EXPECT_EQ(operation.method, request.at("method"));
    EXPECT_EQ(operation.body, request.at("body"));
    EXPECT_EQ(1u, done.values().size());
    EXPECT_TRUE(done.completed());

    client_->queueReply(
        FakeSocketClient::Reply::failure(makeError(ConnectionError::mapToOvError(403))));
    StreamRecorder failed(operation.call());
    const auto* error = errorAs<ConnectionError>(failed.error());
    ASSERT_NE(nullptr, error);
    EXPECT_EQ(ConnectionErrorType::forbidden, error->type());
  }
}

}  // namespace
}  // namespace kel
