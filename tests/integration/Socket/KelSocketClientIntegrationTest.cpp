// The socket client with the real WebSocket against the emulator over loopback.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Socket/Client/KelSocketClient.h"
#include "ServerClient/Socket/Events/KelEventHandler.h"
#include "ServerClient/Socket/Model/PathRepresentable.h"
#include "ServerClient/Socket/Model/Request.h"
#include "ServerClient/Socket/SocketBuilder.h"
#include "ServerClient/platform/ApplicationLifecycle.h"
#include "ServerClient/platform/HTTPCookieStorage.h"
#include "ServerClient/platform/OvNetworkManager.h"
#include "ServerClient/platform/WebSocketTaskConnectionWrapper.h"
#include "ServerClient/rx/TestScheduler.h"
#include "emulator/Emulator.h"
#include "support/StreamRecorder.h"
#include "support/TestCertificates.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using emulator::Emulator;
using emulator::Recipients;
using testing::StreamRecorder;

enum class Resources { echo, broken };
[[maybe_unused]] constexpr auto pathTable(Resources) {
  return makePathTable<Resources>({{Resources::echo, "/echo"}, {Resources::broken, "/broken"}});
}

JsonRequest<Resources> request(Resources path, nlohmann::json body = nlohmann::json::object()) {
  return {.pathname = path, .body = std::move(body), .method = "POST"};
}

/// A copy of the ConnectionError that `error` holds, if that is what it holds.
std::optional<ConnectionError> connectionError(const std::exception_ptr& error) {
  if (const auto* e = errorAs<ConnectionError>(error)) return *e;
  return std::nullopt;
}

bool isAuthenticated(const SocketState& state) {
  return state == SocketState::authenticated();
}

class SocketClientAgainstEmulator : public ::testing::Test {
 protected:
  /// Starts the emulator (TLS with the test authority's localhost certificate when `tls`).
  void start(bool tls = false) {
    emulator::Options options;
    if (tls) {
      const auto& leaf = test::TestCertificates::shared().localhost();
      options.tls = emulator::TlsOptions{leaf.certificatePem, leaf.privateKeyPem};
    }
    emulator_ = std::make_unique<Emulator>(std::move(options));
    emulator_->addUser("alice");
    token_ = emulator_->createSession("alice");
    emulator_->resources().route("POST", "/broken", [](const emulator::ResourceRequest&) {
      return emulator::Reply::message(500, "down for maintenance");
    });
    urls_ = emulator_->start();
  }

  /// A client made by the builder, as the facade makes it, on the real WebSocket.
  std::shared_ptr<KelSocketClient> makeClient(std::string socketURL, bool trustTestAuthority,
                                              KelSocketClient::Options clientOptions = {}) {
    SocketBuilder::Platform platform;
    platform.makeSocket = [this, trustTestAuthority](const boost::urls::url& url,
                                                     std::vector<std::string> protocols) {
      platform::WebSocketTaskConnectionWrapper::Options options;
      options.cookieStorage = cookies_;
      if (trustTestAuthority) {
        options.extraCertificateAuthoritiesPem =
            test::TestCertificates::shared().caCertificatePem();
      }
      return std::make_shared<platform::WebSocketTaskConnectionWrapper>(url, std::move(protocols),
                                                                        std::move(options));
    };
    platform.cookieHeaders = [cookies = cookies_](boost::urls::url_view url)
        -> std::optional<std::vector<platform::UpgradeRequest::HeaderField>> {
      auto stored = cookies->cookies(url);
      if (stored.empty()) return std::nullopt;
      return platform::HTTPCookieStorage::requestHeaderFields(stored);
    };
    platform.makeNetworkManager = [] {
      return std::make_shared<platform::InMemoryNetworkManager>();
    };
    clientOptions.applicationLifecycle = std::make_shared<platform::ApplicationLifecycle>();
    platform.clientOptions = std::move(clientOptions);
    builder_ = SocketBuilder::create(
        boost::urls::url(urls_.kelURL), boost::urls::url(socketURL), events_,
        [this] { return std::optional(token_); }, std::move(platform), 100ms);
    auto client = std::dynamic_pointer_cast<KelSocketClient>(builder_->newSocket());
    states_ = std::make_shared<StreamRecorder<SocketState>>(client->socketConnectionEventChannel());
    return client;
  }

  /// Connects and authenticates, failing the test when that does not happen.
  void connect(const std::shared_ptr<KelSocketClient>& client) {
    auto connected = std::make_shared<StreamRecorder<rx::Unit>>(client->connect(token_));
    ASSERT_TRUE(connected->waitForEnd());
    ASSERT_EQ(nullptr, connected->error()) << describeError(connected->error());
    ASSERT_EQ(1u, connected->values().size());
    ASSERT_TRUE(isAuthenticated(client->currentStatus()));
  }

  /// Sends and waits for the outcome.
  std::shared_ptr<StreamRecorder<Resource>> send(const std::shared_ptr<KelSocketClient>& client,
                                                 const AnyRequest& request) {
    auto outcome = std::make_shared<StreamRecorder<Resource>>(client->send(request));
    EXPECT_TRUE(outcome->waitForEnd());
    return outcome;
  }

  void TearDown() override {
    states_.reset();
    if (emulator_) emulator_->stop();
  }

  std::unique_ptr<Emulator> emulator_;
  emulator::Urls urls_;
  std::string token_;
  std::shared_ptr<platform::HTTPCookieStorage> cookies_ =
      std::make_shared<platform::HTTPCookieStorage>();
  std::shared_ptr<KelEventHandler> events_ = std::make_shared<KelEventHandler>();
  std::shared_ptr<SocketBuilder> builder_;
  std::shared_ptr<StreamRecorder<SocketState>> states_;
};

TEST_F(SocketClientAgainstEmulator, SignsInSendsTheSessionCookieAndExchangesRequestsAndEvents) {
  start();
  // The sign-in would have left this cookie for the server's https form of the socket URL.
  ASSERT_TRUE(
      cookies_->setCookie("SESSION=abc123; Path=/",
                          boost::urls::url("http://127.0.0.1:" + std::to_string(urls_.port))));
  auto client = makeClient(urls_.socketURL, false);
  connect(client);
  const auto socket = emulator_->waitForSocket([](auto& s) { return s.authenticated; }, 5s);
  ASSERT_TRUE(socket);
  EXPECT_EQ("SESSION=abc123", socket->cookieHeader);
  EXPECT_EQ("websocket", socket->subprotocol);

  auto echoed = send(client, request(Resources::echo, {{"presence", "away"}}));
  ASSERT_EQ(1u, echoed->values().size()) << describeError(echoed->error());
  EXPECT_EQ(nlohmann::json({{"presence", "away"}}),
            nlohmann::json::parse(echoed->values()[0].data));

  auto broken = send(client, request(Resources::broken));
  const auto serverError = connectionError(broken->error());
  ASSERT_TRUE(serverError.has_value()) << describeError(broken->error());
  EXPECT_EQ(ConnectionErrorType::serverError, serverError->type());
  EXPECT_EQ(500, serverError->code());

  auto received = std::make_shared<StreamRecorder<KelEvent>>(events_->eventChannel());
  EXPECT_EQ(1u, emulator_->pushEvent(Recipients::user("alice"), "/presence/alice", "PUT",
                                     {{"status", "away"}}));
  ASSERT_TRUE(received->waitFor([](const KelEvent& e) { return e.param == "alice"; }));
  EXPECT_EQ("PUT", received->values()[0].method);

  client->stop(platform::SocketCloseCode::normalClosure);
}

TEST_F(SocketClientAgainstEmulator, SecureSocketsNeedATrustedCertificateForTheHost) {
  start(/*tls=*/true);
  auto trusted = makeClient(urls_.socketURL, true);
  connect(trusted);
  EXPECT_EQ(1u, send(trusted, request(Resources::echo))->values().size());
  trusted->stop(platform::SocketCloseCode::normalClosure);

  // Refused before the upgrade; the connection wait then runs out (in virtual time).
  const auto expectRefused = [this](bool trustTestAuthority) {
    auto virtualTime = std::make_shared<rx::TestScheduler>();
    KelSocketClient::Options options;
    options.connectionScheduler = virtualTime;
    options.reconnectionScheduler = virtualTime;
    auto client = makeClient(urls_.socketURL, trustTestAuthority, options);
    const auto upgrades = emulator_->counters().upgrades;
    auto connected = std::make_shared<StreamRecorder<rx::Unit>>(client->connect(token_));
    ASSERT_TRUE(states_->waitFor(
        [](const SocketState& s) { return s.kind() == SocketState::Kind::disconnected; }));
    EXPECT_EQ(upgrades, emulator_->counters().upgrades);
    virtualTime->advanceBy(kConnectionTimeout);
    ASSERT_TRUE(connected->waitForEnd());
    const auto timeout = connectionError(connected->error());
    ASSERT_TRUE(timeout.has_value());
    EXPECT_EQ(ConnectionErrorType::timeout, timeout->type());
    client->stop(platform::SocketCloseCode::normalClosure);
  };
  // An authority the client does not know (the other refusals are the WebSocket's own tests).
  expectRefused(false);
}

TEST_F(SocketClientAgainstEmulator, ReconnectsAndAuthenticatesAgainAfterAnAbruptDrop) {
  start();
  auto client = makeClient(urls_.socketURL, false);
  connect(client);

  emulator_->refuseConnections();
  ASSERT_EQ(1u, emulator_->dropSockets(Recipients::all()));
  ASSERT_TRUE(states_->waitFor([](const SocketState& s) {
    return s == SocketState::disconnected(SocketStateDisconnectedReason::lostConnection);
  }));
  // The reconnector keeps trying while the server turns it away...
  ASSERT_TRUE(
      emulator_->waitUntil([&] { return emulator_->counters().connectionsRefused >= 2; }, 5s));
  EXPECT_EQ(1u, emulator_->counters().authSuccesses);
  auto refused = send(client, request(Resources::echo));
  const auto noClient = connectionError(refused->error());
  ASSERT_TRUE(noClient.has_value());
  EXPECT_EQ(ConnectionErrorType::noSocketClient, noClient->type());

  // ... and gets through once it accepts again.
  emulator_->acceptConnections();
  ASSERT_TRUE(states_->waitFor(isAuthenticated, 2));
  ASSERT_TRUE(emulator_->waitUntil([&] { return emulator_->counters().authSuccesses == 2; }, 5s));
  EXPECT_EQ(1u, send(client, request(Resources::echo))->values().size());
  client->stop(platform::SocketCloseCode::normalClosure);
}

// Junk that parses is ignored (the event handler's unit tests); what the WebSocket itself refuses
// ends the connection, and the client must come back.
TEST_F(SocketClientAgainstEmulator, FramesTheWebSocketRefusesEndTheConnectionAndTheClientReturns) {
  start();
  auto client = makeClient(urls_.socketURL, false);
  connect(client);
  using emulator::Malformed;
  for (auto kind : {Malformed::huge, Malformed::invalidUtf8}) {
    const auto authentications = emulator_->counters().authSuccesses;
    ASSERT_EQ(1u, emulator_->sendMalformed(Recipients::all(), kind));
    ASSERT_TRUE(emulator_->waitUntil(
        [&] { return emulator_->counters().authSuccesses == authentications + 1; }, 10s))
        << name(kind);
    ASSERT_TRUE(states_->waitFor(isAuthenticated, authentications + 1));
    auto after = send(client, request(Resources::echo));
    EXPECT_EQ(1u, after->values().size()) << name(kind) << ": " << describeError(after->error());
  }
  client->stop(platform::SocketCloseCode::normalClosure);
}

TEST_F(SocketClientAgainstEmulator, PendingRequestsEndWithATimeOutOrTheStop) {
  start();
  auto virtualTime = std::make_shared<rx::TestScheduler>();
  KelSocketClient::Options options;
  options.socketScheduler = virtualTime;
  auto client = makeClient(urls_.socketURL, false, options);
  connect(client);

  // A server that never answers: the request times out.
  emulator_->faultNextRequests(1, emulator::Fault::withhold());
  auto withheld =
      std::make_shared<StreamRecorder<Resource>>(client->send(request(Resources::echo)));
  virtualTime->advanceBy(0s);
  ASSERT_TRUE(emulator_->waitUntil([&] { return emulator_->counters().requests == 1; }, 5s));
  virtualTime->advanceBy(kDefaultRequestTimeout);
  ASSERT_TRUE(withheld->waitForEnd());
  const auto timeout = connectionError(withheld->error());
  ASSERT_TRUE(timeout.has_value());
  EXPECT_EQ(ConnectionErrorType::timeout, timeout->type());

  // A server that dies with requests pending: stop() completes them without an element.
  emulator_->faultAllRequests(emulator::Fault::withhold());
  std::vector<std::shared_ptr<StreamRecorder<Resource>>> pending;
  for (int i = 0; i < 20; ++i) {
    pending.push_back(
        std::make_shared<StreamRecorder<Resource>>(client->send(request(Resources::echo))));
  }
  virtualTime->advanceBy(0s);
  ASSERT_TRUE(emulator_->waitUntil([&] { return emulator_->counters().requests == 21; }, 5s));
  emulator_->stop();
  ASSERT_TRUE(
      states_->waitFor([](auto& s) { return s.kind() == SocketState::Kind::disconnected; }));
  EXPECT_EQ(20u, client->pendingRequests().size()) << "a lost connection keeps them waiting";
  client->stop(platform::SocketCloseCode::normalClosure);
  for (const auto& outcome : pending) {
    ASSERT_TRUE(outcome->waitForEnd());
    EXPECT_TRUE(outcome->completed());
    EXPECT_TRUE(outcome->values().empty());
  }
  EXPECT_TRUE(client->pendingRequests().empty());
  EXPECT_EQ(0u, virtualTime->pendingCount()) << "every time-out was cancelled";
}

}  // namespace
}  // namespace kel
