#include "ServerClient/Socket/Client/KelSocketClient.h"
#include "ServerClient/Socket/Client/RequestStore.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "SocketTestSupport.h"
#include "support/LogCapture.h"

namespace kel::testing {
namespace {

using platform::OvNetworkStatus;
using platform::SocketCloseCode;
using Reason = SocketStateDisconnectedReason;

class KelSocketClientTest : public SocketClientTest {};

TEST_F(KelSocketClientTest, AStoppedClientCannotConnectAgainAndLogsWithoutCredentials) {
  LogCapture log;
  client_ = makeClient();
  client_->stop(SocketCloseCode::normalClosure);
  EXPECT_EQ(SocketState::disconnected(Reason::expectedClose), client_->currentStatus())
      << "stopping a client that never opened still publishes the close";

  auto connecting = client_->connect(kToken);
  EXPECT_EQ(0u, socket_->connectCount()) << "nothing happens before the subscription";
  auto outcome = record(connecting, scheduler_);
  EXPECT_EQ((std::vector{SocketCloseCode::normalClosure}), socket_->disconnectCodes())
      << "the socket that opened was closed again at once";
  scheduler_->advanceBy(20s);
  expectConnectionError(outcome->error(), ConnectionErrorType::timeout, -1);
  EXPECT_EQ(rx::TestScheduler::at(20s), outcome->at());
  for (const auto& state : states_) EXPECT_NE(SocketState::connected(), state);
  EXPECT_TRUE(log.contains("]: Connecting to wss://<redacted>@kel.test/ws/kel"));
  EXPECT_TRUE(log.contains("]: Closing socket to: wss://<redacted>@kel.test/ws/kel"));
  EXPECT_FALSE(log.contains("MARK"));
}

TEST_F(KelSocketClientTest, NothingIsWrittenUnlessAuthenticatedAtTheCallAndFramed) {
  auto whileNew = send(testRequest(1));
  socket_->connect();
  auto whileConnected = client_->send(testRequest(2));
  // The check was made at the call: authenticating before subscribing changes nothing.
  socket_->receiveMessage(R"({"kapiId":"k"})");
  ASSERT_EQ(SocketState::authenticated(), client_->currentStatus());
  auto late = record(whileConnected, scheduler_);
  auto unframed = send(JsonRequest<TestPath>{
      .requestID = 5, .pathname = TestPath::users, .body = "bad \xff", .method = "PUT"});
  scheduler_->start();
  for (const auto& outcome : {whileNew, late}) {
    expectConnectionError(outcome->error(), ConnectionErrorType::noSocketClient, -1);
  }
  const auto* error = errorAs<GenericError>(unframed->error());
  ASSERT_NE(nullptr, error);
  EXPECT_EQ(GenericErrorType::Kind::encoding, error->type().kind());
  EXPECT_NE(std::string::npos, error->type().text().find("\"/users\"")) << error->type().text();
  EXPECT_TRUE(socket_->sentTexts().empty());
  EXPECT_TRUE(client_->pendingRequests().empty());
}

TEST_F(KelSocketClientTest, ResponsesSettleTheRequestWithTheirIdentifierAndEventsGoElsewhere) {
  authenticate();
  struct Case {
    nlohmann::json members;
    std::vector<Resource> resources;
    std::optional<int> failure;  // a ConnectionError's code
  };
  const std::vector<Case> cases = {
      {{{"status", 200}, {"body", {{"b", {1, 2}}, {"a", "x"}}}},
       {{"1", R"({"a":"x","b":[1,2]})"}},
       std::nullopt},
      {{{"status", 404}, {"body", {{"a", 1}}}}, {}, 404},
      {{{"error", 0}}, {}, 0},
      {{{"status", 501}, {"body", "dropped text"}}, {{"4", ""}}, std::nullopt},
  };
  const auto n = std::ssize(cases);
  std::vector<std::shared_ptr<StreamRecorder<Resource>>> records;
  for (std::int64_t id = 1; id <= n; ++id) records.push_back(send(testRequest(id)));
  EXPECT_TRUE(requestFrames().empty()) << "registering and writing run on the socket queue";
  scheduler_->advanceBy(0s);
  ASSERT_EQ(cases.size(), requestFrames().size());
  EXPECT_EQ(*testRequest(1).toMessage(), requestFrames()[0]);
  EXPECT_EQ(cases.size(), client_->pendingRequests().size());

  socket_->receiveMessage(R"(3{"path":"/presence/1","method":"put","body":{"s":1}})");
  socket_->receiveMessage(R"(3{"id":"1"})");
  EXPECT_EQ(2, serverEvents_->events);
  for (auto i = n; i-- > 0;) socket_->receiveMessage(responseFrame(i + 1, cases[i].members));
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(cases[i].members.dump());
    EXPECT_EQ(cases[i].resources, records[i]->values());
    EXPECT_EQ(!cases[i].failure, records[i]->completed());
    if (cases[i].failure) {
      expectConnectionError(records[i]->error(),
                            ConnectionError::mapToOvError(*cases[i].failure).type(),
                            *cases[i].failure);
    }
  }
  EXPECT_TRUE(client_->pendingRequests().empty());
  EXPECT_EQ(0u, scheduler_->pendingCount()) << "no deadline timer is left to wake an idle client";
}

TEST_F(KelSocketClientTest, EachRequestTimesOutAtItsOwnDeadlineUnlessAnswered) {
  authenticate();
  struct Case {
    std::int64_t id;
    std::chrono::seconds sentAt, timeout;
    bool answered;
  };
  const std::vector<Case> cases = {
      {1, 0s, 20s, false}, {2, 1s, 5s, false}, {3, 2s, 5s, true},
      {4, 3s, 1s, false},  {5, 3s, 20s, true}, {6, 3s, 0s, false},
  };
  std::vector<std::shared_ptr<StreamRecorder<Resource>>> records;
  for (const auto& c : cases) {
    scheduler_->advanceTo(rx::TestScheduler::at(c.sentAt));
    records.push_back(send(testRequest(c.id, c.timeout)));
  }
  scheduler_->advanceBy(0s);
  for (const auto& c : cases) {
    if (c.answered) socket_->receiveMessage(responseFrame(c.id, {{"body", {c.id}}}));
  }
  scheduler_->advanceBy(60s);
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(cases[i].id);
    if (cases[i].answered) {
      EXPECT_TRUE(records[i]->completed());
      EXPECT_EQ(1u, records[i]->values().size());
    } else {
      expectConnectionError(records[i]->error(), ConnectionErrorType::timeout, -1);
      EXPECT_EQ(rx::TestScheduler::at(cases[i].sentAt + cases[i].timeout), records[i]->at());
    }
  }
  EXPECT_TRUE(client_->pendingRequests().empty());
  EXPECT_EQ(0u, scheduler_->pendingCount());
}

TEST_F(KelSocketClientTest, TimedOutAndDisposedRequestsAreUnregisteredAndLateResponsesLogged) {
  LogCapture log;
  authenticate();
  auto request = testRequest(7);
  request.body = nlohmann::json::object({{"password", "MARK"}});
  auto timedOut = send(request);
  auto disposed = send(testRequest(11));
  send(testRequest(12))->dispose();  // before the socket queue got to it
  scheduler_->advanceBy(0s);
  EXPECT_EQ(2u, client_->pendingRequests().size());
  disposed->dispose();
  scheduler_->advanceBy(19'999ms);
  EXPECT_EQ(std::vector<std::int64_t>{7}, client_->pendingRequests());
  EXPECT_FALSE(timedOut->terminated());
  scheduler_->advanceBy(1ms);
  expectConnectionError(timedOut->error(), ConnectionErrorType::timeout, -1);
  EXPECT_EQ(rx::TestScheduler::at(20s), timedOut->at());
  EXPECT_TRUE(client_->pendingRequests().empty());
  EXPECT_EQ(2u, requestFrames().size());
  EXPECT_EQ(0u, scheduler_->pendingCount());

  socket_->receiveMessage(responseFrame(7, {{"body", {{"late", true}, {"token", "MARK"}}}}));
  socket_->receiveMessage(responseFrame(11));
  EXPECT_TRUE(timedOut->values().empty());
  EXPECT_FALSE(disposed->terminated());
  EXPECT_EQ(1u, log.count("]: No request found for response:7"));
  EXPECT_EQ(1u, log.count("]: No request found for response:11"));
  EXPECT_FALSE(log.contains("MARK"));

  // A time-out names the socket's last failure beside it, once there is one.
  EXPECT_EQ("ConnectionError.timeout (code -1)",
            describeErrorWithSocketFailure(timedOut->error(), client_));
  handler_->socketDidClose(platform::socketCloseCodeFrom(4401), "invalid session token");
  EXPECT_EQ(
      "ConnectionError.timeout (code -1); the socket was closed with 4401 (invalid session token)",
      describeErrorWithSocketFailure(timedOut->error(), client_));
}

TEST_F(KelSocketClientTest, ARequestWhoseIdentifierIsPendingIsSentUnderAFreshOne) {
  authenticate();
  auto earlier = send(testRequest(9));
  auto later = send(testRequest(9));
  scheduler_->advanceBy(0s);
  ASSERT_EQ(2u, requestFrames().size());
  EXPECT_EQ(*testRequest(9).toMessage(), requestFrames()[0]);
  const auto redrawn =
      nlohmann::json::parse(requestFrames()[1].substr(1))["id"].get<std::int64_t>();
  EXPECT_NE(9, redrawn);
  EXPECT_EQ(*testRequest(redrawn).toMessage(), requestFrames()[1]) << "only the identifier changed";

  // Each answer reaches its own caller, whatever the order.
  socket_->receiveMessage(responseFrame(redrawn, {{"body", {2}}}));
  socket_->receiveMessage(responseFrame(9, {{"body", {1}}}));
  EXPECT_EQ((std::vector{Resource{"9", "[1]"}}), earlier->values());
  EXPECT_EQ((std::vector{Resource{std::to_string(redrawn), "[2]"}}), later->values());

  // Once answered, an identifier is free again; and the removal of a cancelled request, still
  // on its way, leaves a later request under the same identifier alone.
  auto cancelled = send(testRequest(4));
  scheduler_->advanceBy(0s);
  auto successor = send(testRequest(4));
  cancelled->dispose();
  socket_->receiveMessage(responseFrame(4));
  scheduler_->advanceBy(0s);
  EXPECT_EQ(*testRequest(4).toMessage(), requestFrames().back());
  socket_->receiveMessage(responseFrame(4, {{"body", {4}}}));
  EXPECT_EQ((std::vector{Resource{"4", "[4]"}}), successor->values());
  EXPECT_TRUE(cancelled->values().empty());
}

TEST_F(KelSocketClientTest, OnlyALostConnectionWithATokenStartsAReconnectionUntilAStop) {
  authenticate();
  // A request outlives lost connections; only the stop ends it.
  auto pending = send(testRequest(1, 600s));
  scheduler_->advanceBy(0s);
  socket_->setOptions({.openOnConnect = false});
  socket_->close(SocketCloseCode::goingBackground);
  handler_->disconnect(SocketCloseCode::normalClosure);
  EXPECT_FALSE(client_->socketReconnector()->isReconnecting()) << "an expected close";
  sessionToken_ = "renewed-token";
  handler_->disconnect(SocketCloseCode::abnormalClosure);
  EXPECT_TRUE(client_->socketReconnector()->isReconnecting());
  handler_->disconnect(SocketCloseCode::goingAway);
  const auto connects = socket_->connectCount();
  scheduler_->advanceBy(3s);
  EXPECT_EQ(connects + 1, socket_->connectCount())
      << "two lost connections in a row start one reconnection";
  // The socket opens: authenticated again with the token read when the reconnection started.
  acknowledgeAuthentication();
  socket_->open();
  EXPECT_EQ(SocketState::authenticated(), client_->currentStatus());
  EXPECT_EQ("AUTH renewed-token", socket_->sentTexts().back());
  EXPECT_FALSE(client_->socketReconnector()->isReconnecting());

  // Lost again; the user stops the client between two attempts.
  socket_->close(SocketCloseCode::abnormalClosure);
  scheduler_->advanceBy(4s);
  EXPECT_EQ(std::vector<std::int64_t>{1}, client_->pendingRequests());
  EXPECT_FALSE(pending->terminated());
  client_->stop(SocketCloseCode::normalClosure);
  EXPECT_TRUE(client_->socketReconnector()->isReconnecting());
  scheduler_->advanceBy(2s);
  EXPECT_FALSE(client_->socketReconnector()->isReconnecting()) << "the next tick saw the stop";
  EXPECT_EQ(0u, scheduler_->pendingCount()) << "no pulse, no attempt and no time-out left";
  EXPECT_TRUE(pending->completed());
  EXPECT_EQ(0u, pending->values().size());
}

TEST_F(KelSocketClientTest, PongsWhenTheNetworkComesBackOrTheAppReturnsWhileAuthenticated) {
  socket_->connect();
  network_->setStatus(OvNetworkStatus::notReachable);
  network_->setStatus(OvNetworkStatus::reachable);
  EXPECT_EQ(0u, socket_->pongCount()) << "not while merely connected";
  socket_->receiveMessage(R"({"kapiId":"k"})");
  EXPECT_EQ(0u, socket_->pongCount()) << "authenticating is no change of the network";
  network_->setStatus(OvNetworkStatus::notReachable);
  network_->setStatus(OvNetworkStatus::reachable);
  EXPECT_EQ(1u, socket_->pongCount());
  lifecycle_->postWillEnterForeground();
  EXPECT_EQ(1u, socket_->pongCount()) << "a foreground after reachable is a repeat";
  network_->setStatus(OvNetworkStatus::unknown);
  lifecycle_->postWillEnterForeground();
  lifecycle_->postWillEnterForeground();
  EXPECT_EQ(2u, socket_->pongCount()) << "a foreground after another status pongs, once";
  network_->setStatus(OvNetworkStatus::notReachable);
  client_->stop(SocketCloseCode::normalClosure);
  network_->setStatus(OvNetworkStatus::reachable);
  EXPECT_EQ(2u, socket_->pongCount());
}

TEST_F(KelSocketClientTest, AReleasedClientLetsGoOfItsSocketAndSubscriptions) {
  authenticate();
  auto pending = send(testRequest(2));
  scheduler_->advanceBy(0s);
  auto sending = client_->send(testRequest(3));
  std::weak_ptr<KelSocketClient> weak = client_;
  client_.reset();
  EXPECT_TRUE(pending->completed()) << "a dropped client ends its pending requests as stop() does";
  EXPECT_TRUE(pending->values().empty());
  EXPECT_TRUE(weak.expired()) << "neither an unsubscribed send nor the socket keeps it alive";
  auto outcome = record(sending, scheduler_);
  scheduler_->advanceBy(0s);
  const auto* error = errorAs<GenericError>(outcome->error());
  ASSERT_NE(nullptr, error);
  EXPECT_EQ(GenericErrorType::Kind::underlying, error->type().kind());

  // Its subscriptions ended with it: no pong, no reconnection, no work left behind.
  network_->setStatus(OvNetworkStatus::notReachable);
  network_->setStatus(OvNetworkStatus::reachable);
  EXPECT_EQ(0u, socket_->pongCount());
  socket_->close(SocketCloseCode::abnormalClosure);
  scheduler_->advanceBy(60s);
  EXPECT_EQ(1u, socket_->connectCount());
  EXPECT_EQ(0u, scheduler_->pendingCount());
}

// stop() completes every request while callers may send or cancel from their completion.
TEST(RequestStoreTest, CompletingObserversMayUseTheStoreAgain) {
  using Observer = RequestStore<int>::Observer;
  RequestStore<int> store;
  std::vector<int> completed;
  for (int key : {1, 2, 3}) {
    store.registerRequest(key, Observer([](const Resource&) {}, {},
                                        [&, key] {
                                          completed.push_back(key);
                                          EXPECT_FALSE(store.contains(key));
                                          if (key == 2) store.registerRequest(20, Observer());
                                        }));
  }
  store.completeObservers();
  std::sort(completed.begin(), completed.end());
  EXPECT_EQ((std::vector{1, 2, 3}), completed);
  EXPECT_EQ(std::vector<int>{20}, store.all()) << "registered during the sweep, so still pending";
}

}  // namespace
}  // namespace kel::testing
