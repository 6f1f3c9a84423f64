#include "ServerClient/KeepConnection/KeepConnectionService.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/SDKError.h"
#include "ServerClient/rx/TestScheduler.h"
#include "support/FakeSocketClient.h"
#include "support/StreamRecorder.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::FakeSocketClient;
using testing::StreamRecorder;
using UserSession = rx::BehaviorSubject<std::optional<AuthenticationData>>;

AuthenticationData signedIn() {
  AuthenticationData data;
  data.session.sessionID = "s-42";
  data.credential.credentialId = "cred-7";
  data.capabilities =
      std::make_shared<const Capabilities>(std::vector<std::string>{}, std::vector<std::string>{});
  return data;
}

class KeepConnectionServiceTest : public ::testing::Test {
 protected:
  KeepConnectionServiceTest() { client_->setTimeoutScheduler(scheduler_); }

  std::shared_ptr<rx::TestScheduler> scheduler_ = std::make_shared<rx::TestScheduler>();
  std::shared_ptr<FakeSocketClient> client_ = std::make_shared<FakeSocketClient>();
  SocketClientSlot slot_{client_};
  KeepConnectionService service_{slot_};
  UserSession session_{signedIn()};
};

TEST_F(KeepConnectionServiceTest, RenewsTheSessionNamedByTheUserData) {
  client_->queueReply(FakeSocketClient::Reply::withBody(json::object()));
  StreamRecorder renewal(service_.renewSession(session_));
  const auto request = client_->lastRequest();
  EXPECT_EQ("/sessions/s-42", request.at("path"));
  EXPECT_EQ("PUT", request.at("method"));
  EXPECT_EQ((json{{"registered", "cred-7"}}), request.at("body"));
  EXPECT_EQ(1u, renewal.values().size());
  EXPECT_TRUE(renewal.completed());
}

TEST_F(KeepConnectionServiceTest, WithoutASessionNothingIsSent) {
  UserSession empty{std::nullopt};
  UserSession failed{signedIn()};
  failed.onError(std::make_exception_ptr(std::runtime_error("gone")));
  for (auto* session : {&empty, &failed}) {
    StreamRecorder none(service_.renewSession(*session));
    EXPECT_TRUE(none.completed());
    EXPECT_TRUE(none.values().empty());
  }
  EXPECT_TRUE(client_->requests().empty());
}

TEST_F(KeepConnectionServiceTest, EveryFailureBecomesOneElement) {
  // A time-out after the request's 20 seconds, in virtual time.
  StreamRecorder timedOut(service_.renewSession(session_));
  scheduler_->advanceBy(19s);
  EXPECT_FALSE(timedOut.terminated());
  scheduler_->advanceBy(1s);
  EXPECT_EQ(1u, timedOut.values().size());
  EXPECT_TRUE(timedOut.completed());
  EXPECT_EQ(0u, client_->pendingCount());

  client_->queueReply(
      FakeSocketClient::Reply::failure(makeError(ConnectionError::mapToOvError(500))));
  client_->queueReply(FakeSocketClient::Reply::empty());
  for (int i = 0; i < 3; ++i) {
    if (i == 2) slot_.accept(nullptr);  // the server's error, the closed socket, no client
    StreamRecorder failed(service_.renewSession(session_));
    EXPECT_EQ(1u, failed.values().size()) << i;
    EXPECT_TRUE(failed.completed()) << i;
  }
}

TEST_F(KeepConnectionServiceTest, TheOrErrorFormReportsWhatTheRenewalSwallows) {
  client_->queueReply(FakeSocketClient::Reply::withBody(json::object()));
  StreamRecorder accepted(service_.renewSessionOrError(session_));
  EXPECT_EQ(1u, accepted.values().size());
  EXPECT_TRUE(accepted.completed());

  client_->queueReply(
      FakeSocketClient::Reply::failure(makeError(ConnectionError::mapToOvError(401))));
  StreamRecorder refused(service_.renewSessionOrError(session_));
  const auto* error = errorAs<ConnectionError>(refused.error());
  ASSERT_NE(nullptr, error);
  EXPECT_EQ(ConnectionErrorType::unauthorized, error->type());

  client_->queueReply(FakeSocketClient::Reply::empty());  // the socket closed under the request
  StreamRecorder closed(service_.renewSessionOrError(session_));
  EXPECT_TRUE(closed.values().empty());
  EXPECT_TRUE(closed.error());
}

}  // namespace
}  // namespace kel
