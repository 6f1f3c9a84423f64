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

TEST_F(KeepConnectionServiceTest, ARenewalIsOneElementWhateverTheAnswerAndTheOrErrorFormFails) {
  using Reply = FakeSocketClient::Reply;
  const struct {
    Reply reply;
    std::string orError;  // what the OrError form ends with
  } cases[] = {
      {Reply::withBody(json::object()), "none"},
      {Reply::failure(makeError(ConnectionError::mapToOvError(401))), "connection/unauthorized"},
      {Reply::empty(), "generic/underlying"},  // the socket closed under the request
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.orError);
    client_->queueReply(c.reply);
    StreamRecorder renewal(service_.renewSession(session_));
    EXPECT_EQ(1u, renewal.values().size());
    EXPECT_TRUE(renewal.completed());
    client_->queueReply(c.reply);
    StreamRecorder orError(service_.renewSessionOrError(session_));
    EXPECT_EQ(c.orError, errorKind(orError.error()));
    EXPECT_EQ(c.orError == "none" ? 1u : 0u, orError.values().size());
  }
  const auto request = client_->lastRequest();
  EXPECT_EQ("/sessions/s-42", request.at("path"));
  EXPECT_EQ("PUT", request.at("method"));
  EXPECT_EQ((json{{"registered", "cred-7"}}), request.at("body"));
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

TEST_F(KeepConnectionServiceTest, ATimeOutOrAMissingClientIsOneElementAsWell) {
  // A time-out after the request's 20 seconds, in virtual time.
  StreamRecorder timedOut(service_.renewSession(session_));
  scheduler_->advanceBy(19s);
  EXPECT_FALSE(timedOut.terminated());
  scheduler_->advanceBy(1s);
  EXPECT_EQ(1u, timedOut.values().size());
  EXPECT_TRUE(timedOut.completed());
  EXPECT_EQ(0u, client_->pendingCount());

  slot_.accept(nullptr);
  StreamRecorder noClient(service_.renewSession(session_));
  EXPECT_EQ(1u, noClient.values().size());
  EXPECT_TRUE(noClient.completed());
}

}  // namespace
}  // namespace kel
