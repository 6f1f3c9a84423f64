// The facade's session lifecycle in virtual time: one TestScheduler runs every queue, the server
// is an in-memory HTTP client and in-memory WebSockets answered by the test.

#include "ServerClient/Client/KelServer.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <nlohmann/json.hpp>

#include "ServerClient/Auth/Service/AuthService.h"
#include "ServerClient/Common/Json.h"
#include "ServerClient/platform/InMemoryKeychain.h"
#include "ServerClient/platform/InMemorySocket.h"
#include "ServerClient/rx/TestScheduler.h"
#include "support/SignInAnswer.h"
#include "support/StreamRecorder.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using platform::InMemoryHTTPClient;
using Outcome = InMemoryHTTPClient::Outcome;
using State = KelServer::State;
using testing::StreamRecorder;

const std::string kSignInAnswer = testing::signInAnswer({"presence"});

class KelServerTest : public ::testing::Test {
 protected:
  KelServerTest() {
    http_->setResponder([this](const platform::HTTPRequest&) -> std::optional<Outcome> {
      ++signIns_;
      return failuresLeft_-- > 0 ? Outcome::respond(500, "{}")
                                 : Outcome::respond(200, kSignInAnswer);
    });
    auto& options = options_;
    options.mainScheduler = options.resumeTimeoutScheduler = options.renewalScheduler = scheduler_;
    options.makeUserInitiatedScheduler = [this] { return scheduler_; };
    options.keychain = std::make_shared<platform::InMemoryKeychain>();
    options.userDefaults = std::make_shared<platform::InMemoryUserDefaults>();
    options.applicationLifecycle = lifecycle_;
    options.httpClient = http_;
    options.deviceInfo = std::make_shared<platform::FixedDeviceInfo>();
    auto& platform = options.socketPlatform.emplace();
    platform.makeSocket = [this](const boost::urls::url& url, std::vector<std::string> protocols) {
      auto socket = std::make_shared<platform::InMemorySocket>(url, std::move(protocols));
      socket->setSendHandler([this, weak = std::weak_ptr(socket)](const std::string& text) {
        if (auto s = weak.lock()) answer(*s, text);
      });
      sockets_.push_back(socket);
      return socket;
    };
    // Unreachable at first: the client pongs when reachability changes to reachable, which a
    // return to the foreground counts as.
    platform.makeNetworkManager = [] {
      return std::make_shared<platform::InMemoryNetworkManager>(
          platform::OvNetworkStatus::notReachable);
    };
    platform.clientOptions.socketScheduler = platform.clientOptions.connectionScheduler =
        platform.clientOptions.authenticationScheduler =
            platform.clientOptions.reconnectionScheduler = scheduler_;
    server_ = makeServer("wss://kel.example/ws/kel");
  }

  std::shared_ptr<KelServer> makeServer(const std::string& socketURL,
                                        const std::string& kelURL = "https://kel.example/api/v1",
                                        bool allowsCleartextSocket = false) {
    auto options = options_;
    options.allowsCleartextSocket = allowsCleartextSocket;
    return KelServer::create(boost::urls::url(kelURL), boost::urls::url(socketURL), "4.2.0", "TEAM",
                             options);
  }

  // The server side of the socket: acknowledges "AUTH ", answers every request with 200.
  void answer(platform::InMemorySocket& socket, const std::string& text) {
    if (text.starts_with("AUTH ")) {
      auths_.push_back(text.substr(5));
      socket.receiveMessage(R"({"kapiId":"k-1"})");
      return;
    }
    const auto request = text.starts_with("2") ? parseJson(text.substr(1)) : std::nullopt;
    if (!request) return;
    requests_.push_back((*request)["method"].get<std::string>() + " " +
                        (*request)["path"].get<std::string>());
    if (closeOn_ == (*request)["path"]) {
      socket.close(platform::SocketCloseCode::normalClosure);
      return;
    }
    if (!answerRequests_) return;
    nlohmann::json body = nlohmann::json::object();
    if ((*request)["path"] == "/permissions") {
      body = {{"recording", nlohmann::json::object()}, {"voicemail", nlohmann::json::object()}};
    }
    socket.receiveMessage(
        "3" + nlohmann::json{{"id", (*request)["id"]}, {"status", 200}, {"body", body}}.dump());
  }

  /// Signs in and runs the chain to its end.
  void signIn() {
    StreamRecorder result(server_->connect("outside-token"));
    scheduler_->advanceBy(0s);
    ASSERT_EQ(1u, result.values().size()) << describeError(result.error());
  }

  void suspend() {
    server_->suspend();
    scheduler_->advanceBy(0s);
    signIns_ = 0;
  }

  std::size_t count(const std::string& request) const {
    return static_cast<std::size_t>(std::count(requests_.begin(), requests_.end(), request));
  }

  std::shared_ptr<rx::TestScheduler> scheduler_ = std::make_shared<rx::TestScheduler>();
  std::shared_ptr<InMemoryHTTPClient> http_ = std::make_shared<InMemoryHTTPClient>();
  std::shared_ptr<platform::ApplicationLifecycle> lifecycle_ =
      std::make_shared<platform::ApplicationLifecycle>();
  std::vector<std::shared_ptr<platform::InMemorySocket>> sockets_;
  std::vector<std::string> requests_;
  std::vector<std::string> auths_;  // the tokens of the "AUTH " frames
  bool answerRequests_ = true;
  std::string closeOn_;  // the path of a request that the server answers with a normal close
  int signIns_ = 0;
  int failuresLeft_ = 0;
  KelServer::Options options_;
  std::shared_ptr<KelServer> server_;
};

TEST_F(KelServerTest, SignInStoresTheSessionAndPublishesTheUser) {
  StreamRecorder states(server_->states());
  signIn();
  EXPECT_EQ((std::vector{State::newState, State::connecting, State::connected}), states.values());
  ASSERT_TRUE(server_->userSession().value());
  EXPECT_EQ("T1", server_->userSession().value()->token);
  EXPECT_TRUE(server_->canRestoreSession());
  EXPECT_EQ("https://kel.example/api/", server_->lastUrlServer());
  EXPECT_TRUE(server_->capabilityValidator()->hasPermission(ServiceDomain::presence));
  // The lifecycle given to the facade is the one its socket clients listen to.
  lifecycle_->postWillEnterForeground();
  scheduler_->advanceBy(0s);
  EXPECT_EQ(1u, sockets_.back()->pongCount());

  // Forgetting the session leaves nothing to restore.
  server_->clearSessionInfo();
  EXPECT_FALSE(server_->canRestoreSession());
  EXPECT_EQ("", server_->lastUrlServer());
  EXPECT_FALSE(server_->userSession().value());
}

TEST_F(KelServerTest, RenewsEvery20SecondsWhileConnectedWithOneLoopPerConnectedPeriod) {
  signIn();
  scheduler_->advanceBy(19s);
  EXPECT_EQ(0u, count("PUT /sessions/S1"));
  scheduler_->advanceBy(1s);
  EXPECT_EQ(1u, count("PUT /sessions/S1"));
  scheduler_->advanceBy(40s);
  EXPECT_EQ(3u, count("PUT /sessions/S1"));

  // A lost connection ends the loop; the reconnection starts the next one.
  sockets_.back()->close(platform::SocketCloseCode::abnormalClosure);
  scheduler_->advanceBy(2s);
  EXPECT_EQ(State::disconnected, server_->sessionState()->currentState().value());
  EXPECT_EQ(3u, count("PUT /sessions/S1"));
  scheduler_->advanceBy(1s);  // the reconnector's pulse
  EXPECT_EQ(State::connected, server_->sessionState()->currentState().value());
  scheduler_->advanceBy(20s);
  EXPECT_EQ(4u, count("PUT /sessions/S1")) << "one loop, not two";
}

// A stored token the server no longer knows is refused at once: KelCliTest's whoami with a 20 s
// bound would otherwise see thirty attempts time out.
TEST_F(KelServerTest, RestoreRetriesEveryTwoSecondsUpToThirtyAttemptsButNotInTheBackground) {
  signIn();
  suspend();
  failuresLeft_ = 1000;
  StreamRecorder failed(server_->restoreSession(false));
  scheduler_->advanceBy(57s);  // attempts at 0, 2, ..., 56 s
  EXPECT_EQ(29, signIns_);
  EXPECT_FALSE(failed.error());
  scheduler_->advanceBy(60s);
  EXPECT_EQ(30, signIns_) << "the thirtieth failure is the answer";
  EXPECT_TRUE(failed.error());
  EXPECT_EQ(State::error, server_->sessionState()->currentState().value());

  // Suspended again while retrying: the background state stops the retries.
  suspend();
  StreamRecorder background(server_->restoreSession(false));
  scheduler_->advanceBy(0s);
  server_->sessionState()->emit(State::disconnectedBackground);
  scheduler_->advanceBy(60s);
  EXPECT_EQ(2, signIns_) << "the second failure sees the background state";
  EXPECT_TRUE(background.error());

  // A restore that checks the background is refused there, at once.
  lifecycle_->postDidEnterBackground();
  StreamRecorder refused(server_->restoreSession(true));
  const auto* error = errorAs<GenericError>(refused.error());
  ASSERT_NE(nullptr, error);
  EXPECT_EQ(GenericErrorType::notAllowed("Session not restored because app is in background"),
            error->type());
  lifecycle_->postWillEnterForeground();
  EXPECT_FALSE(server_->appIsInBackground());
}

TEST_F(KelServerTest, RestoreWaitsThreeSecondsForAReconnectingSocketThenSignsInAgain) {
  signIn();
  EXPECT_EQ(1, signIns_);
  sockets_.back()->setOptions({.openOnConnect = false});
  sockets_.back()->close(platform::SocketCloseCode::abnormalClosure);

  StreamRecorder resumed(server_->restoreSession(false));
  scheduler_->advanceBy(2s);
  EXPECT_EQ(1, signIns_) << "waiting for the socket layer";
  EXPECT_TRUE(resumed.values().empty());
  scheduler_->advanceBy(1s);  // 3 s: gives up waiting and restores afresh
  scheduler_->advanceBy(0s);
  EXPECT_EQ(2, signIns_);
  ASSERT_EQ(1u, resumed.values().size()) << describeError(resumed.error());
}

TEST_F(KelServerTest, OnlyAServerSideCloseAsksForANewSessionAndLogoutEndsWithTheServerOrTheSocket) {
  signIn();
  StreamRecorder needs(server_->needsNewSession());
  StreamRecorder done(server_->logout("device-1"));
  scheduler_->advanceBy(0s);
  EXPECT_EQ(1u, count("DELETE /pushNotifications"));
  EXPECT_EQ(1u, count("DELETE /sessions/S1"));
  EXPECT_EQ(1u, done.values().size()) << describeError(done.error());
  EXPECT_TRUE(needs.values().empty()) << "a logout's own close asks for nothing";
  EXPECT_FALSE(server_->canRestoreSession());

  // The server closing the socket by itself asks for a new session and forgets the stored one.
  signIn();
  sockets_.back()->close(platform::SocketCloseCode::normalClosure);
  scheduler_->advanceBy(0s);
  EXPECT_EQ(1u, needs.values().size());
  EXPECT_FALSE(server_->canRestoreSession());
  EXPECT_FALSE(server_->userSession().value());

  // The server never answers, but the socket goes away: that ends the logout as well.
  signIn();
  answerRequests_ = false;
  StreamRecorder raced(server_->logout("device-1"));
  scheduler_->advanceBy(0s);
  EXPECT_TRUE(raced.values().empty());
  sockets_.back()->close(platform::SocketCloseCode::abnormalClosure);
  scheduler_->advanceBy(0s);
  EXPECT_EQ(1u, raced.values().size()) << describeError(raced.error());

  // Without a user there is nothing to do.
  requests_.clear();
  StreamRecorder nothing(server_->logout("device-1"));
  EXPECT_EQ(1u, nothing.values().size());
  EXPECT_TRUE(requests_.empty());
}

TEST_F(KelServerTest, AReplacedUserSessionIsTheOneTheLibraryPublishesOnAndReconnectsWith) {
  signIn();
  auto replaced = server_->userSession().value();
  replaced->token = "T-replaced";
  const KelServer::UserSession mine{replaced};
  const auto previous = server_->userSession();
  server_->setUserSession(mine);
  server_->setNeedsNewSession(rx::Observable<rx::Unit>::just(rx::Unit{}));
  EXPECT_EQ(1u, StreamRecorder(server_->needsNewSession()).values().size());

  // The socket builder reads the replacement: a reconnection authenticates with its token.
  sockets_.back()->close(platform::SocketCloseCode::abnormalClosure);
  scheduler_->advanceBy(3s);
  EXPECT_EQ("T-replaced", auths_.back());

  server_->clearSessionInfo();
  EXPECT_FALSE(mine.value());
  EXPECT_TRUE(previous.value()) << "the replaced subject gets nothing more";
}

TEST_F(KelServerTest, SignInRefusesAClearTextSocketBesideATlsSignInUnlessAllowed) {
  struct Case {
    std::string kelURL, socketURL;
    bool allowed;
    bool refused;
  };
  for (const auto& [kelURL, socketURL, allowed, refused] : std::vector<Case>{
           {"https://kel.example/api", "ws://kel.example/ws/kel", false, true},
           {"https://kel.example/api", "ws://kel.example/ws/kel", true, false},
           {"http://kel.example/api", "ws://kel.example/ws/kel", false, false},
       }) {
    SCOPED_TRACE(kelURL + " " + socketURL);
    auto server = makeServer(socketURL, kelURL, allowed);
    StreamRecorder signedIn(server->connect("outside-token"));
    scheduler_->advanceBy(0s);
    const auto* error = errorAs<GenericError>(signedIn.error());
    EXPECT_EQ(refused, error != nullptr) << describeError(signedIn.error());
    if (!refused) continue;
    EXPECT_EQ(GenericErrorType::invalidURL(socketURL), error->type());
    EXPECT_NE(std::string::npos, error->description().find("unencrypted"));
    EXPECT_EQ(State::newState, server->sessionState()->currentState().value());
    // A restore of the session that the first server stored is refused alike.
    signIn();
    StreamRecorder restored(server->restoreSession(false));
    EXPECT_NE(nullptr, errorAs<GenericError>(restored.error()));
  }
}

TEST_F(KelServerTest, ASocketClosedNormallyDuringSignInIsAConnectionErrorThatSaysSo) {
  closeOn_ = "/permissions";
  StreamRecorder result(server_->connect("outside-token"));
  scheduler_->advanceBy(0s);
  const auto* error = errorAs<ConnectionError>(result.error());
  ASSERT_NE(nullptr, error) << describeError(result.error());
  EXPECT_EQ(ConnectionErrorType::noSocketClient, error->type());
  EXPECT_EQ(kClosedDuringSignIn, error->description());
}

}  // namespace
}  // namespace kel
