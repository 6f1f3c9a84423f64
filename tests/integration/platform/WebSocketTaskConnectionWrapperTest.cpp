#include "ServerClient/platform/WebSocketTaskConnectionWrapper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/url/parse.hpp>

#include "ServerClient/platform/HTTPCookieStorage.h"
#include "support/RecordingSocketDelegate.h"
#include "support/TestCertificates.h"
#include "support/WebSocketTestServer.h"

namespace kel::platform {
namespace {

using namespace std::chrono_literals;
using test::RecordingSocketDelegate;
using test::TestCertificates;
using test::WebSocketTestServer;
using testing::HasSubstr;
using Kind = RecordingSocketDelegate::Kind;
using Options = WebSocketTaskConnectionWrapper::Options;

boost::urls::url parse(std::string_view text) {
  return boost::urls::parse_uri(text).value();
}

WebSocketTestServer::Options tlsServer(const test::CertifiedKey& certificate) {
  WebSocketTestServer::Options options;
  options.tls = certificate;
  return options;
}

// A port on which nothing listens (it was free a moment ago, and nobody else binds on loopback).
std::uint16_t closedPort() {
  boost::asio::io_context context;
  boost::asio::ip::tcp::acceptor acceptor(
      context, {boost::asio::ip::make_address("127.0.0.1"), static_cast<std::uint16_t>(0)});
  return acceptor.local_endpoint().port();
}

class WebSocketTest : public testing::Test {
 protected:
  // A socket with a storage of its own, so that tests share no cookies.
  std::shared_ptr<WebSocketTaskConnectionWrapper> makeSocket(
      const std::string& url, std::vector<std::string> protocols = {}, Options options = {}) {
    if (!options.cookieStorage) options.cookieStorage = cookies_;
    auto socket = std::make_shared<WebSocketTaskConnectionWrapper>(parse(url), std::move(protocols),
                                                                   std::move(options));
    socket->setDelegate(delegate_);
    return socket;
  }

  // Connects and waits for the server's side of the connection.
  std::shared_ptr<WebSocketTestServer::Connection> open(WebSocketTaskConnectionWrapper& socket,
                                                        const WebSocketTestServer& server,
                                                        std::size_t index = 0) {
    const auto before = delegate_->count(Kind::connected);
    socket.connect();
    EXPECT_TRUE(delegate_->waitForConnect(before + 1)) << delegate_->errors().size();
    return server.waitForConnection(index);
  }

  void TearDown() override { EXPECT_EQ("", delegate_->contractViolations()); }

  std::shared_ptr<HTTPCookieStorage> cookies_ = std::make_shared<HTTPCookieStorage>();
  std::shared_ptr<RecordingSocketDelegate> delegate_ = std::make_shared<RecordingSocketDelegate>();
};

// --- Plain connections ---

TEST_F(WebSocketTest, ExchangesTextAndBinaryFramesWithCallbacksOnTheNetworkThread) {
  WebSocketTestServer server;
  auto socket = makeSocket(server.url("/ws"));
  EXPECT_FALSE(socket->isConnected());
  auto connection = open(*socket, server);
  ASSERT_TRUE(connection);
  EXPECT_TRUE(socket->isConnected());

  socket->send("hello");
  socket->send(R"(2{"id":1,"path":"/presence"})");
  connection->sendBinary(std::string("\x00\xff", 2));
  ASSERT_TRUE(delegate_->waitFor(Kind::message, 2));
  ASSERT_TRUE(delegate_->waitFor(Kind::data, 1));
  EXPECT_EQ((std::vector<std::string>{"hello", R"(2{"id":1,"path":"/presence"})"}),
            delegate_->messages());
  EXPECT_EQ((std::vector<WebSocketTestServer::Frame>{{true, "hello"},
                                                     {true, R"(2{"id":1,"path":"/presence"})"}}),
            connection->frames());

  const auto events = delegate_->events();
  for (const auto& event : events) {
    EXPECT_EQ(events.front().thread, event.thread);
    EXPECT_NE(std::this_thread::get_id(), event.thread);
  }
  EXPECT_EQ(0u, delegate_->count(Kind::error));
}

TEST_F(WebSocketTest, TheUpgradeCarriesSubProtocolHeaderFieldsAndCookies) {
  WebSocketTestServer::Options serverOptions;
  serverOptions.setCookies = {"route=b7; Path=/", "theme=dark; Max-Age=60"};
  WebSocketTestServer server(serverOptions);
  // What an http sign-in to the same host left in the storage.
  cookies_->setCookie("JSESSIONID=s1; HttpOnly", parse("http://127.0.0.1/login"));
  cookies_->setCookie("elsewhere=1", parse("http://127.0.0.2/login"));

  auto socket = makeSocket(server.url("/kel/ws?client=1"), {"kel"});
  auto request = socket->request();
  request.setHeaderField("X-Trace", "t-1");
  request.setHeaderField("Cookie", "manual=1; JSESSIONID=mine");
  request.setHeaderField("Host", "evil.example");
  socket->setRequest(request);
  auto connection = open(*socket, server);
  ASSERT_TRUE(connection);

  EXPECT_EQ("/kel/ws?client=1", connection->target());
  EXPECT_EQ("kel", connection->header("Sec-WebSocket-Protocol"));
  EXPECT_EQ("t-1", connection->header("X-Trace"));
  EXPECT_EQ("127.0.0.1:" + std::to_string(server.port()), connection->header("Host"));
  EXPECT_THAT(connection->header("User-Agent").value_or(""), testing::StartsWith("ServerClient/"));
  // One Cookie field: the request's own, then the stored ones it does not already name.
  EXPECT_EQ("manual=1; JSESSIONID=mine", connection->header("Cookie"));
  // The answer's cookies went into the storage for the socket's URL (theme with the default
  // path /kel, so it comes first).
  EXPECT_EQ("theme=dark; JSESSIONID=s1; route=b7",
            HTTPCookieStorage::requestHeaderFields(cookies_->cookies(parse(server.url("/kel/ws"))))
                .at(0)
                .second);
  socket->disconnect(SocketCloseCode::normalClosure);
  ASSERT_TRUE(delegate_->waitForDisconnect());

  // Without its own Cookie field, the stored cookies make the field.
  request.removeHeaderField("Cookie");
  socket->setRequest(request);
  connection = open(*socket, server, 1);
  ASSERT_TRUE(connection);
  EXPECT_EQ("theme=dark; JSESSIONID=s1; route=b7", connection->header("Cookie"));
  socket->disconnect(SocketCloseCode::normalClosure);
  ASSERT_TRUE(delegate_->waitForDisconnect(2));

  // With cookie handling off, the storage is neither read nor written.
  request.setShouldHandleCookies(false);
  socket->setRequest(request);
  cookies_->removeAllCookies();
  cookies_->setCookie("JSESSIONID=s1", parse("http://127.0.0.1/login"));
  connection = open(*socket, server, 2);
  ASSERT_TRUE(connection);
  EXPECT_EQ(std::nullopt, connection->header("Cookie"));
  EXPECT_EQ(1u, cookies_->allCookies().size());
}

TEST_F(WebSocketTest, ASubProtocolThatWasNotAskedForFailsTheUpgrade) {
  WebSocketTestServer::Options serverOptions;
  serverOptions.subprotocolReply = "other";
  WebSocketTestServer server(serverOptions);
  auto socket = makeSocket(server.url("/kel"), {"kel"});
  socket->connect();
  EXPECT_EQ(SocketCloseCode::abnormalClosure, delegate_->waitForDisconnect());
  EXPECT_EQ(0u, delegate_->count(Kind::connected));
  ASSERT_EQ(1u, delegate_->errors().size());
  EXPECT_THAT(delegate_->errors()[0], HasSubstr("sub-protocol \"other\""));
}

TEST_F(WebSocketTest, ThePeersCloseCodeIsReportedAndTheSocketConnectsAgain) {
  WebSocketTestServer server;
  auto socket = makeSocket(server.url("/ws"));
  const std::vector<
      std::pair<std::function<void(WebSocketTestServer::Connection&)>, SocketCloseCode>>
      cases{
          {[](auto& c) { c.close(1000); }, SocketCloseCode::normalClosure},
          {[](auto& c) { c.close(4321, "private"); }, socketCloseCodeFrom(4321)},
          {[](auto& c) { c.close(4001); }, SocketCloseCode::goingBackground},
          {[](auto& c) { c.closeWithoutCode(); }, SocketCloseCode::noStatusReceived},
      };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    auto connection = open(*socket, server, i);
    ASSERT_TRUE(connection);
    cases[i].first(*connection);
    EXPECT_EQ(cases[i].second, delegate_->waitForDisconnect(i + 1)) << i;
    EXPECT_FALSE(socket->isConnected());
    // The client answered the close frame.
    const auto end = connection->waitForEnd();
    ASSERT_TRUE(end);
    EXPECT_TRUE(end->closeFrame);
  }
  EXPECT_EQ(0u, delegate_->count(Kind::error));
}

TEST_F(WebSocketTest, ALostTransportIsAnAbnormalClosure) {
  WebSocketTestServer server;
  auto socket = makeSocket(server.url("/ws"));

  auto connection = open(*socket, server, 0);
  ASSERT_TRUE(connection);
  connection->reset();
  EXPECT_EQ(SocketCloseCode::abnormalClosure, delegate_->waitForDisconnect(1));
  EXPECT_EQ(1u, delegate_->count(Kind::error));

  connection = open(*socket, server, 1);
  ASSERT_TRUE(connection);
  connection->dropTransport();
  EXPECT_EQ(SocketCloseCode::abnormalClosure, delegate_->waitForDisconnect(2));
  EXPECT_EQ(2u, delegate_->count(Kind::error));
  EXPECT_FALSE(socket->isConnected());
}

TEST_F(WebSocketTest, MessagesAboveTheLimitEndTheConnectionWithMessageTooBig) {
  WebSocketTestServer server;
  Options options;
  options.maxMessageSize = 64 * 1024;
  auto socket = makeSocket(server.url("/ws"), {}, options);
  auto connection = open(*socket, server);
  ASSERT_TRUE(connection);
  connection->sendText(std::string(64 * 1024, 'a'));  // exactly the limit: fine
  ASSERT_TRUE(delegate_->waitFor(Kind::message));
  connection->sendText(std::string(64 * 1024 + 1, 'b'));
  EXPECT_EQ(SocketCloseCode::messageTooBig, delegate_->waitForDisconnect());
  EXPECT_EQ(1u, delegate_->count(Kind::message));
  const auto end = connection->waitForEnd();
  ASSERT_TRUE(end);
  EXPECT_TRUE(end->closeFrame);
  EXPECT_EQ(1009, end->code);
}

TEST_F(WebSocketTest, TheDefaultLimitRefusesAMessageOverSixteenMebibytes) {
  WebSocketTestServer server;
  auto socket = makeSocket(server.url("/ws"));
  auto connection = open(*socket, server);
  ASSERT_TRUE(connection);
  connection->sendBinary(std::string(16 * 1024 * 1024 + 1, 'x'));
  EXPECT_EQ(SocketCloseCode::messageTooBig, delegate_->waitForDisconnect());
  EXPECT_EQ(0u, delegate_->count(Kind::data));
}

TEST_F(WebSocketTest, TextThatIsNotUtf8EndsTheConnection) {
  WebSocketTestServer server;
  auto socket = makeSocket(server.url("/ws"));
  auto connection = open(*socket, server);
  ASSERT_TRUE(connection);
  connection->sendText("caf\xe9");
  EXPECT_EQ(SocketCloseCode::invalidFramePayloadData, delegate_->waitForDisconnect());
  EXPECT_EQ(0u, delegate_->count(Kind::message));
  const auto end = connection->waitForEnd();
  ASSERT_TRUE(end);
  EXPECT_EQ(1007, end->code);
}

// --- Closing ---

TEST_F(WebSocketTest, DisconnectReportsTheGivenCodeExactlyOnce) {
  WebSocketTestServer server;
  auto socket = makeSocket(server.url("/ws"));
  auto connection = open(*socket, server);
  ASSERT_TRUE(connection);
  socket->send("last words");
  socket->disconnect(SocketCloseCode::goingBackground);
  EXPECT_FALSE(socket->isConnected());
  // A second disconnect() here could find the close already finished and be reported on its
  // own, so the one-report rule is checked at the end instead.
  socket->send("too late");  // dropped
  EXPECT_EQ(SocketCloseCode::goingBackground, delegate_->waitForDisconnect());

  // The frames sent before disconnect() went out before the close frame with the code.
  const auto end = connection->waitForEnd();
  ASSERT_TRUE(end);
  EXPECT_TRUE(end->closeFrame);
  EXPECT_EQ(4001, end->code);
  EXPECT_EQ((std::vector<WebSocketTestServer::Frame>{{true, "last words"}}), connection->frames());

  // A code that cannot travel in a close frame is still the one reported.
  connection = open(*socket, server, 1);
  ASSERT_TRUE(connection);
  socket->disconnect(SocketCloseCode::abnormalClosure);
  EXPECT_EQ(SocketCloseCode::abnormalClosure, delegate_->waitForDisconnect(2));
  EXPECT_EQ(1000, connection->waitForEnd().value_or(WebSocketTestServer::End{}).code);

  // Nothing arrives after the report, in particular no second one.
  socket->disconnect(SocketCloseCode::normalClosure);  // closed: reported at once
  EXPECT_EQ(SocketCloseCode::normalClosure, delegate_->waitForDisconnect(3));
  EXPECT_EQ((std::vector<SocketCloseCode>{SocketCloseCode::goingBackground,
                                          SocketCloseCode::abnormalClosure,
                                          SocketCloseCode::normalClosure}),
            delegate_->disconnects());
  EXPECT_EQ(0u, delegate_->count(Kind::error));
}

TEST_F(WebSocketTest, DisconnectWhileOpeningEndsTheAttemptWithTheGivenCode) {
  WebSocketTestServer::Options serverOptions;
  serverOptions.stallHandshake = true;
  WebSocketTestServer server(serverOptions);
  auto socket = makeSocket(server.url("/ws"));
  socket->connect();
  ASSERT_TRUE(server.waitForAccepted(1));
  socket->connect();  // already opening: nothing
  socket->disconnect(SocketCloseCode::otherExpectedClosure);
  EXPECT_EQ(SocketCloseCode::otherExpectedClosure, delegate_->waitForDisconnect());
  EXPECT_EQ(1u, delegate_->events().size());
}

TEST_F(WebSocketTest, TheClosingHandshakeIsBoundedWhenThePeerStopsListening) {
  WebSocketTestServer server;
  server.setMessageHandler([](auto& connection, const auto&) { connection.stopReading(); });
  Options options;
  options.closeTimeout = 200ms;
  auto socket = makeSocket(server.url("/ws"), {}, options);
  ASSERT_TRUE(open(*socket, server));
  socket->send("freeze");
  ASSERT_TRUE(server.waitForConnection()->waitForFrames(1));
  socket->disconnect(SocketCloseCode::normalClosure);
  EXPECT_EQ(SocketCloseCode::normalClosure, delegate_->waitForDisconnect());
}

// --- Sending ---

TEST_F(WebSocketTest, ThousandsOfSendsArriveInOrder) {
  WebSocketTestServer server;
  auto socket = makeSocket(server.url("/ws"));
  auto connection = open(*socket, server);
  ASSERT_TRUE(connection);

  constexpr int kCount = 5000;
  std::vector<std::string> expected;
  for (int i = 0; i < kCount; ++i) expected.push_back("2{\"id\":" + std::to_string(i) + "}");
  for (const auto& text : expected) socket->send(text);
  ASSERT_TRUE(delegate_->waitFor(Kind::message, kCount));
  EXPECT_EQ(expected, delegate_->messages());  // the echo, read back in order as well
}

TEST_F(WebSocketTest, SendsFromManyThreadsKeepEachThreadsOrder) {
  WebSocketTestServer::Options serverOptions;
  serverOptions.echo = false;
  WebSocketTestServer server(serverOptions);
  auto socket = makeSocket(server.url("/ws"));
  auto connection = open(*socket, server);
  ASSERT_TRUE(connection);

  constexpr int kThreads = 4;
  constexpr int kEach = 1000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) socket->send(std::to_string(t) + ":" + std::to_string(i));
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(connection->waitForFrames(kThreads * kEach));
  std::vector<int> next(kThreads, 0);
  for (const auto& frame : connection->frames()) {
    const auto colon = frame.payload.find(':');
    const int t = std::stoi(frame.payload.substr(0, colon));
    EXPECT_EQ(next[t]++, std::stoi(frame.payload.substr(colon + 1))) << frame.payload;
  }
}

TEST_F(WebSocketTest, FramesAreWrittenOnlyWhileOpenAndNeverKeptForLater) {
  WebSocketTestServer::Options serverOptions;
  serverOptions.echo = false;
  WebSocketTestServer server(serverOptions);
  auto socket = makeSocket(server.url("/ws"));
  socket->send("before");
  socket->sendPong();
  auto connection = open(*socket, server);
  ASSERT_TRUE(connection);
  socket->sendPong();
  socket->send("during");
  ASSERT_TRUE(connection->waitForFrames(1));
  EXPECT_TRUE(connection->waitForPongs(1));
  socket->disconnect(SocketCloseCode::normalClosure);
  ASSERT_TRUE(delegate_->waitForDisconnect());
  socket->send("after");

  connection = open(*socket, server, 1);
  ASSERT_TRUE(connection);
  socket->send("again");
  ASSERT_TRUE(connection->waitForFrames(1));
  EXPECT_EQ((std::vector<WebSocketTestServer::Frame>{{true, "during"}}),
            server.waitForConnection(0)->frames());
  EXPECT_EQ((std::vector<WebSocketTestServer::Frame>{{true, "again"}}), connection->frames());
  EXPECT_EQ(1u, server.waitForConnection(0)->pongs());
}

// --- Opening failures and time limits ---

TEST_F(WebSocketTest, FailuresToOpenAreReportedAsAbnormalClosureWithTheirCause) {
  {
    auto socket = makeSocket("ws://127.0.0.1:" + std::to_string(closedPort()) + "/ws");
    socket->connect();
    EXPECT_EQ(SocketCloseCode::abnormalClosure, delegate_->waitForDisconnect(1));
    EXPECT_THAT(delegate_->errors().at(0), HasSubstr("connecting to ws://127.0.0.1:"));
  }
  {
    WebSocketTestServer::Options serverOptions;
    serverOptions.rejectUpgradeWithStatus = 403;
    WebSocketTestServer server(serverOptions);
    auto socket = makeSocket(server.url("/ws"));
    socket->connect();
    EXPECT_EQ(SocketCloseCode::abnormalClosure, delegate_->waitForDisconnect(2));
    EXPECT_THAT(delegate_->errors().at(1), HasSubstr("HTTP 403"));
  }
  EXPECT_EQ(0u, delegate_->count(Kind::connected));
}

TEST_F(WebSocketTest, ASilentPeerCannotKeepTheOpeningPendingForEver) {
  WebSocketTestServer::Options serverOptions;
  serverOptions.stallHandshake = true;
  for (bool tls : {false, true}) {
    if (tls) serverOptions.tls = TestCertificates::shared().localhost();
    WebSocketTestServer server(serverOptions);
    Options options;
    options.openTimeout = 300ms;
    auto socket = makeSocket(server.url("/ws"), {}, options);
    const auto before = delegate_->disconnects().size();
    socket->connect();
    EXPECT_EQ(SocketCloseCode::abnormalClosure, delegate_->waitForDisconnect(before + 1)) << tls;
    EXPECT_THAT(delegate_->errors().back(), HasSubstr("timed out"));
  }
}

TEST_F(WebSocketTest, AnIdleConnectionIsKeptAliveAndADeafPeerIsDetected) {
  WebSocketTestServer server;
  server.setMessageHandler([](auto& connection, const auto&) { connection.stopReading(); });
  Options options;
  options.keepAliveTimeout = 400ms;
  auto socket = makeSocket(server.url("/ws"), {}, options);
  auto connection = open(*socket, server);
  ASSERT_TRUE(connection);
  // A healthy peer answers the pings the socket sends when nothing arrives.
  ASSERT_TRUE(connection->waitForPings(3));
  EXPECT_TRUE(socket->isConnected());
  EXPECT_EQ(0u, delegate_->count(Kind::disconnected));
  // Once it stops reading, nothing answers, and the connection counts as lost.
  socket->send("freeze");
  EXPECT_EQ(SocketCloseCode::abnormalClosure, delegate_->waitForDisconnect());
}

// --- Destruction ---

TEST_F(WebSocketTest, DestroyingTheSocketDropsItsConnectionWithoutAnyFurtherCall) {
  WebSocketTestServer::Options stalling;
  stalling.stallHandshake = true;
  WebSocketTestServer stalled(stalling);
  WebSocketTestServer::Options silent;
  silent.echo = false;
  WebSocketTestServer server(silent);
  {
    auto socket = makeSocket(server.url("/ws"));
    auto connection = open(*socket, server);
    ASSERT_TRUE(connection);
    for (int i = 0; i < 100; ++i) socket->send("pending " + std::to_string(i));
    socket.reset();  // joins the network thread
    const auto end = connection->waitForEnd();
    ASSERT_TRUE(end);
    EXPECT_FALSE(end->closeFrame);
  }
  {
    auto socket = makeSocket(stalled.url("/ws"));
    socket->connect();
    ASSERT_TRUE(stalled.waitForAccepted(1));
    socket.reset();
  }
  EXPECT_EQ(1u, delegate_->events().size());  // the first socketDidConnect only
}

TEST_F(WebSocketTest, ASocketMayBeDestroyedFromInsideItsOwnCallbacks) {
  WebSocketTestServer server;
  std::size_t index = 0;
  for (auto kind : {Kind::connected, Kind::message, Kind::disconnected}) {
    auto delegate = std::make_shared<RecordingSocketDelegate>();
    std::mutex mutex;
    auto socket = makeSocket(server.url("/ws"));
    socket->setDelegate(delegate);
    std::promise<void> destroyed;
    delegate->setHook([&](const RecordingSocketDelegate::Event& event) {
      if (event.kind != kind) return;
      std::shared_ptr<WebSocketTaskConnectionWrapper> last;
      {
        std::lock_guard lock(mutex);
        last = std::move(socket);
      }
      last.reset();  // the destructor runs on the network thread
      destroyed.set_value();
    });
    {
      std::lock_guard lock(mutex);
      socket->connect();
      if (kind != Kind::connected) {
        // The echo of this frame triggers the message case; the server's close the other.
        delegate->waitForConnect();
        socket->send("bye");
      }
    }
    if (kind == Kind::disconnected) {
      server.waitForConnection(index)->close(1000);
    }
    ASSERT_EQ(std::future_status::ready, destroyed.get_future().wait_for(test::kDefaultWait))
        << name(kind);
    if (kind != Kind::disconnected) {
      const auto end = server.waitForConnection(index)->waitForEnd();
      EXPECT_TRUE(end.has_value()) << name(kind);
    }
    EXPECT_EQ("", delegate->contractViolations());
    ++index;
  }
}

// --- TLS ---

TEST_F(WebSocketTest, WssWorksWithAPrivateAuthorityForNamesAndAddresses) {
  const auto& certificates = TestCertificates::shared();
  WebSocketTestServer server(tlsServer(certificates.localhost()));
  test::TemporaryFile caFile(certificates.caCertificatePem());

  Options fromPem;
  fromPem.extraCertificateAuthoritiesPem = certificates.caCertificatePem();
  Options fromFile;
  fromFile.extraCertificateAuthoritiesFile = caFile.path();
  fromFile.useSystemTrustStore = false;

  std::size_t index = 0;
  for (const auto& [host, options] :
       {std::pair{"localhost", fromPem}, std::pair{"127.0.0.1", fromFile}}) {
    auto socket = makeSocket(server.url(host, "/wss"), {"kel"}, options);
    auto connection = open(*socket, server, index);
    ASSERT_TRUE(connection) << host;
    socket->send(std::string("over TLS to ") + host);
    ASSERT_TRUE(delegate_->waitFor(Kind::message, index + 1)) << host;
    EXPECT_EQ(std::string("over TLS to ") + host, delegate_->messages().back());
    // SNI names hosts only, never addresses.
    EXPECT_EQ(
        std::string(host) == "localhost" ? std::optional<std::string>("localhost") : std::nullopt,
        connection->serverName());
    socket->disconnect(SocketCloseCode::normalClosure);
    EXPECT_EQ(SocketCloseCode::normalClosure, delegate_->waitForDisconnect(index + 1));
    ++index;
  }
  EXPECT_EQ(0u, delegate_->count(Kind::error));
}

TEST_F(WebSocketTest, WssOverIpv6Loopback) {
  auto serverOptions = tlsServer(TestCertificates::shared().localhost());
  serverOptions.address = "::1";
  WebSocketTestServer server(serverOptions);
  Options options;
  options.extraCertificateAuthoritiesPem = TestCertificates::shared().caCertificatePem();
  auto socket = makeSocket(server.url("/wss"), {}, options);
  EXPECT_THAT(server.url("/wss"), testing::StartsWith("wss://[::1]:"));
  ASSERT_TRUE(open(*socket, server));
  socket->send("v6");
  ASSERT_TRUE(delegate_->waitFor(Kind::message));
}

TEST_F(WebSocketTest, CertificatesThatDoNotProveTheServersIdentityAreRefused) {
  const auto& certificates = TestCertificates::shared();
  Options trustingTheTestAuthority;
  trustingTheTestAuthority.extraCertificateAuthoritiesPem = certificates.caCertificatePem();

  struct Case {
    const char* what;
    test::CertifiedKey serverCertificate;
    const char* host;
    Options options;
    const char* reason;
  };
  const std::vector<Case> cases{
      // The system's store alone does not know the test authority: verification is on.
      {"system store only", certificates.localhost(), "localhost", Options{},
       "unable to get local issuer certificate"},
      {"self-signed", certificates.selfSigned(), "localhost", trustingTheTestAuthority,
       "self-signed certificate"},
      {"wrong host name", certificates.wrongHost(), "localhost", trustingTheTestAuthority,
       "hostname mismatch"},
      {"wrong address", certificates.wrongHost(), "127.0.0.1", trustingTheTestAuthority,
       "IP address mismatch"},
      {"expired", certificates.expired(), "localhost", trustingTheTestAuthority,
       "certificate has expired"},
  };
  std::size_t reports = 0;
  for (const auto& c : cases) {
    WebSocketTestServer server(tlsServer(c.serverCertificate));
    auto socket = makeSocket(server.url(c.host, "/wss"), {}, c.options);
    socket->connect();
    EXPECT_EQ(SocketCloseCode::tlsHandshakeFailure, delegate_->waitForDisconnect(++reports))
        << c.what;
    EXPECT_THAT(delegate_->errors().back(), HasSubstr(c.reason)) << c.what;
  }
  EXPECT_EQ(0u, delegate_->count(Kind::connected));
}

TEST_F(WebSocketTest, WssToAServerThatDoesNotSpeakTlsFailsTheHandshake) {
  WebSocketTestServer server;  // plain
  Options options;
  options.extraCertificateAuthoritiesPem = TestCertificates::shared().caCertificatePem();
  auto socket = makeSocket("wss://127.0.0.1:" + std::to_string(server.port()) + "/ws", {}, options);
  socket->connect();
  EXPECT_EQ(SocketCloseCode::tlsHandshakeFailure, delegate_->waitForDisconnect());
}

// --- Construction ---

TEST(WebSocketTaskConnectionWrapper, RefusesWhatCouldNeverConnect) {
  const auto make = [](std::string_view url, std::vector<std::string> protocols = {},
                       Options options = {}) {
    WebSocketTaskConnectionWrapper socket(parse(url), std::move(protocols), std::move(options));
  };
  EXPECT_THROW(make("https://127.0.0.1/ws"), std::invalid_argument);
  EXPECT_THROW(make("ws:relative"), std::invalid_argument);
  EXPECT_THROW(make("ws://127.0.0.1/ws", {"two words"}), std::invalid_argument);
  EXPECT_THROW(make("ws://127.0.0.1/ws", {""}), std::invalid_argument);
  Options badPem;
  badPem.extraCertificateAuthoritiesPem = "not a certificate";
  EXPECT_THROW(make("wss://127.0.0.1/ws", {}, badPem), std::invalid_argument);
  Options missingFile;
  missingFile.extraCertificateAuthoritiesFile = "/nonexistent/ca.pem";
  EXPECT_THROW(make("wss://127.0.0.1/ws", {}, missingFile), std::invalid_argument);
  EXPECT_NO_THROW(make("WSS://LOCALHOST/ws", {"kel", "kel.v2"}));
  EXPECT_EQ("ws://h/x", WebSocketTaskConnectionWrapper(parse("ws://h/x"), {}).url().buffer());
}

}  // namespace
}  // namespace kel::platform
