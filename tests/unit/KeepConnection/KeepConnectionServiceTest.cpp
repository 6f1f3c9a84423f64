#include "ServerClient/KeepConnection/KeepConnectionService.h"

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/SDKError.h"
#include "support/FakeSocketClient.h"
#include "support/StreamRecorder.h"

namespace kel {
namespace {

using nlohmann::json;
using testing::FakeSocketClient;
using testing::StreamRecorder;
using Reply = FakeSocketClient::Reply;
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
  std::shared_ptr<FakeSocketClient> client_ = std::make_shared<FakeSocketClient>();
  SocketClientSlot slot_{client_};
  KeepConnectionService service_{slot_};
  UserSession session_{signedIn()};
};

TEST_F(KeepConnectionServiceTest, ARenewalIsOneElementWhateverTheAnswerAndTheOrErrorFormFails) {
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
  // Without a client the renewal is one element as well.
  slot_.accept(nullptr);
  EXPECT_EQ(1u, StreamRecorder(service_.renewSession(session_)).values().size());
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

}  // namespace
}  // namespace kel
