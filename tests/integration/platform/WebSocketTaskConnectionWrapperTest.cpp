#include "ServerClient/platform/WebSocketTaskConnectionWrapper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/url/parse.hpp>

#include "ServerClient/platform/HTTPCookieStorage.h"
#include "emulator/Emulator.h"
#include "support/RecordingSocketDelegate.h"
#include "support/TestCertificates.h"

// The peer is the emulator: its upgrade answers, observation and faults stand for every server
// behaviour the socket must cope with.

namespace kel::platform {
namespace {

using namespace std::chrono_literals;
using emulator::ClosedBy;
using emulator::Recipients;
using emulator::SocketId;
using emulator::SocketInfo;
using test::kDefaultWait;
using test::RecordingSocketDelegate;
using test::TestCertificates;
using ::testing::HasSubstr;
using Kind = RecordingSocketDelegate::Kind;
using Options = WebSocketTaskConnectionWrapper::Options;

boost::urls::url parse(std::string_view text) {
  return boost::urls::parse_uri(text).value();
}

// A port on which nothing listens (it was free a moment ago, and nobody else binds on loopback).
std::uint16_t closedPort() {
  boost::asio::io_context context;
  boost::asio::ip::tcp::acceptor acceptor(
      context, {boost::asio::ip::make_address("127.0.0.1"), static_cast<std::uint16_t>(0)});
  return acceptor.local_endpoint().port();
}

emulator::Options tlsServer(const test::CertifiedKey& certificate) {
  return {.tls = emulator::TlsOptions{certificate.certificatePem, certificate.privateKeyPem}};
}

// The upgrade request's field of that name (case-insensitive), if present.
std::optional<std::string> header(const SocketInfo& info, std::string_view name) {
  for (const auto& [field, value] : info.headers) {
    if (boost::algorithm::iequals(field, name)) return value;
  }
  return std::nullopt;
}

class WebSocketTest : public ::testing::Test {
 protected:
  void SetUp() override { startServer(); }
  void TearDown() override { EXPECT_EQ("", delegate_->contractViolations()); }

  /// (Re)starts the emulator, with one session whose token authenticate() sends.
  void startServer(emulator::Options options = {}) {
    server_.reset();
    server_ = std::make_unique<emulator::Emulator>(std::move(options));
    server_->addUser("alice");
    token_ = server_->createSession("alice");
    port_ = server_->start().port;
    last_ = 0;
  }

  /// "ws://127.0.0.1:<port><path>", "wss" with TLS; another host name for certificate checks.
  std::string url(std::string_view path, std::string_view host = "127.0.0.1") const {
    return std::string(server_->options().tls ? "wss://" : "ws://") + std::string(host) + ":" +
           std::to_string(port_) + std::string(path);
  }

  // A socket with a storage of its own, so that tests share no cookies.
  std::shared_ptr<WebSocketTaskConnectionWrapper> makeSocket(
      const std::string& socketUrl, std::vector<std::string> protocols = {}, Options options = {}) {
    if (!options.cookieStorage) options.cookieStorage = cookies_;
    auto socket = std::make_shared<WebSocketTaskConnectionWrapper>(
        parse(socketUrl), std::move(protocols), std::move(options));
    socket->setDelegate(delegate_);
    return socket;
  }

  // Connects and returns the emulator's id for the connection (0 when it did not open).
  SocketId open(WebSocketTaskConnectionWrapper& socket) {
    const auto before = delegate_->count(Kind::connected);
    socket.connect();
    EXPECT_TRUE(delegate_->waitForConnect(before + 1)) << delegate_->errors().size();
    return nextSocket();
  }
  // The emulator's id for the next connection it registers (0 when none comes).
  SocketId nextSocket() {
    const auto previous = last_;
    auto info =
        server_->waitForSocket([&](const SocketInfo& s) { return s.id > previous; }, kDefaultWait);
    return last_ = info ? info->id : 0;
  }

  // Opens and authenticates, so that the emulator keeps what the socket sends; the
  // acknowledgement is a message.
  SocketId openAuthenticated(WebSocketTaskConnectionWrapper& socket) {
    const auto id = open(socket);
    const auto before = delegate_->count(Kind::message);
    socket.send("AUTH " + token_);
    EXPECT_TRUE(delegate_->waitFor(Kind::message, before + 1));
    return id;
  }

  SocketInfo info(SocketId id) const { return server_->socket(id).value_or(SocketInfo{}); }

  // Waits until `condition` holds for the emulator's record of the socket.
  bool waitFor(SocketId id, const std::function<bool(const SocketInfo&)>& condition) const {
    return server_->waitUntil(
        [&] {
          auto found = server_->socket(id);
          return found && condition(*found);
        },
        kDefaultWait);
  }
  std::optional<SocketInfo> waitForEnd(SocketId id) const {
    if (!waitFor(id, [](const SocketInfo& s) { return !s.open; })) return std::nullopt;
    return server_->socket(id);
  }

  // The frames the socket sent after authenticating, in order.
  std::vector<std::string> framesAfterAuth(SocketId id) const {
    std::vector<std::string> texts;
    for (const auto& frame : server_->receivedFrames(id)) {
      if (frame.kind != emulator::FrameKind::auth) texts.push_back(frame.data);
    }
    return texts;
  }

  std::unique_ptr<emulator::Emulator> server_;
  std::string token_;
  std::uint16_t port_ = 0;
  SocketId last_ = 0;
  std::shared_ptr<HTTPCookieStorage> cookies_ = std::make_shared<HTTPCookieStorage>();
  std::shared_ptr<RecordingSocketDelegate> delegate_ = std::make_shared<RecordingSocketDelegate>();
};

// --- Plain connections ---

TEST_F(WebSocketTest, ExchangesFramesOnlyWhileOpenWithCallbacksOnTheNetworkThread) {
  auto socket = makeSocket(url("/ws"));
  socket->send("before");
  socket->sendPong();
  const auto first = openAuthenticated(*socket);
  socket->sendPong();
  socket->send("during");
  server_->sendBinary(Recipients::socket(first), std::string("\x00\xff", 2));
  ASSERT_TRUE(delegate_->waitFor(Kind::data, 1));
  EXPECT_EQ(std::string("\x00\xff", 2), delegate_->events().back().text);
  ASSERT_TRUE(waitFor(first, [](const SocketInfo& s) { return s.framesReceived == 2; }));
  EXPECT_TRUE(waitFor(first, [](const SocketInfo& s) { return s.pongsReceived == 1; }));
  const auto events = delegate_->events();
  for (const auto& event : events) {
    EXPECT_EQ(events.front().thread, event.thread);
    EXPECT_NE(std::this_thread::get_id(), event.thread);
  }

  // Nothing is kept for a later connection.
  socket->disconnect(SocketCloseCode::normalClosure);
  ASSERT_TRUE(delegate_->waitForDisconnect());
  socket->send("after");
  const auto second = openAuthenticated(*socket);
  socket->send("again");
  ASSERT_TRUE(waitFor(second, [](const SocketInfo& s) { return s.framesReceived == 2; }));
  EXPECT_EQ((std::vector<std::string>{"during"}), framesAfterAuth(first));
  EXPECT_EQ((std::vector<std::string>{"again"}), framesAfterAuth(second));
}

TEST_F(WebSocketTest, TheUpgradeCarriesSubProtocolHeaderFieldsAndCookies) {
  server_->setUpgradeAnswer({.setCookies = {"route=b7; Path=/", "theme=dark; Max-Age=60"}});
  // What an http sign-in to the same host left in the storage.
  cookies_->setCookie("JSESSIONID=s1; HttpOnly", parse("http://127.0.0.1/login"));
  cookies_->setCookie("elsewhere=1", parse("http://127.0.0.2/login"));

  auto socket = makeSocket(url("/kel/ws?client=1"), {"kel"});
  auto request = socket->request();
  request.setHeaderField("X-Trace", "t-1");
  request.setHeaderField("Cookie", "manual=1; JSESSIONID=mine");
  request.setHeaderField("Host", "evil.example");
  socket->setRequest(request);
  auto upgrade = info(open(*socket));

  EXPECT_EQ("/kel/ws?client=1", upgrade.path);
  EXPECT_EQ("kel", header(upgrade, "Sec-WebSocket-Protocol"));
  EXPECT_EQ("t-1", header(upgrade, "X-Trace"));
  EXPECT_EQ("127.0.0.1:" + std::to_string(port_), header(upgrade, "Host"));
  EXPECT_THAT(header(upgrade, "User-Agent").value_or(""), ::testing::StartsWith("ServerClient/"));
  // One Cookie field: the request's own, then the stored ones it does not already name.
  EXPECT_EQ("manual=1; JSESSIONID=mine", header(upgrade, "Cookie"));
  // The answer's cookies went into the storage for the socket's URL (theme with the default
  // path /kel, so it comes first).
  EXPECT_EQ("theme=dark; JSESSIONID=s1; route=b7",
            HTTPCookieStorage::requestHeaderFields(cookies_->cookies(parse(url("/kel/ws"))))
                .at(0)
                .second);
  socket->disconnect(SocketCloseCode::normalClosure);
  ASSERT_TRUE(delegate_->waitForDisconnect());

  // Without its own Cookie field, the stored cookies make the field.
  request.removeHeaderField("Cookie");
  socket->setRequest(request);
  EXPECT_EQ("theme=dark; JSESSIONID=s1; route=b7", header(info(open(*socket)), "Cookie"));
  socket->disconnect(SocketCloseCode::normalClosure);
  ASSERT_TRUE(delegate_->waitForDisconnect(2));

  // With cookie handling off, the storage is neither read nor written.
  request.setShouldHandleCookies(false);
  socket->setRequest(request);
  cookies_->removeAllCookies();
  cookies_->setCookie("JSESSIONID=s1", parse("http://127.0.0.1/login"));
  EXPECT_EQ(std::nullopt, header(info(open(*socket)), "Cookie"));
  EXPECT_EQ(1u, cookies_->allCookies().size());
}

TEST_F(WebSocketTest, ThePeersCloseCodeOrALostTransportIsReportedAndTheSocketConnectsAgain) {
  auto socket = makeSocket(url("/ws"));
  // Code 0: a close frame without a code.
  const std::vector<std::pair<std::uint16_t, SocketCloseCode>> cases{
      {1000, SocketCloseCode::normalClosure},
      {4321, socketCloseCodeFrom(4321)},
      {0, SocketCloseCode::noStatusReceived},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const auto id = open(*socket);
    server_->closeSockets(Recipients::socket(id), cases[i].first, "private");
    EXPECT_EQ(cases[i].second, delegate_->waitForDisconnect(i + 1)) << i;
    EXPECT_FALSE(socket->isConnected());
    const auto end = waitForEnd(id);
    ASSERT_TRUE(end);
    EXPECT_TRUE(end->cleanClose) << "the client answered the close frame";
  }
  EXPECT_EQ(0u, delegate_->count(Kind::error));

  // A lost transport, reset or ended without a close frame, is an abnormal closure.
  std::size_t reports = cases.size();
  for (auto mode : {emulator::DropMode::reset, emulator::DropMode::finish}) {
    server_->dropSockets(Recipients::socket(open(*socket)), mode);
    EXPECT_EQ(SocketCloseCode::abnormalClosure, delegate_->waitForDisconnect(++reports));
  }
  EXPECT_EQ(2u, delegate_->count(Kind::error));
}

TEST_F(WebSocketTest, FramesAboveTheLimitOrNotUtf8EndTheConnectionWithTheirCode) {
  for (auto [limit, size] : {std::pair<std::size_t, std::size_t>{64 * 1024, 64 * 1024 + 1},
                             {Options{}.maxMessageSize, 16 * 1024 * 1024 + 1}}) {
    Options options;
    options.maxMessageSize = limit;
    auto socket = makeSocket(url("/ws"), {}, options);
    const auto id = open(*socket);
    const auto reports = delegate_->disconnects().size();
    server_->sendText(Recipients::socket(id), std::string(limit, 'a'));  // exactly the limit
    ASSERT_TRUE(delegate_->waitFor(Kind::message, reports + 1)) << limit;
    server_->sendBinary(Recipients::socket(id), std::string(size, 'b'));
    EXPECT_EQ(SocketCloseCode::messageTooBig, delegate_->waitForDisconnect(reports + 1)) << limit;
    const auto end = waitForEnd(id);
    ASSERT_TRUE(end);
    EXPECT_EQ(ClosedBy::client, end->closedBy);
    EXPECT_EQ(1009, end->closeCode);
  }
  auto socket = makeSocket(url("/ws"));
  server_->sendMalformed(Recipients::socket(open(*socket)), emulator::Malformed::invalidUtf8);
  EXPECT_EQ(SocketCloseCode::invalidFramePayloadData, delegate_->waitForDisconnect(3));
  EXPECT_EQ(2u, delegate_->count(Kind::message));
  EXPECT_EQ(0u, delegate_->count(Kind::data));
}

// --- Closing ---

TEST_F(WebSocketTest, DisconnectReportsTheGivenCodeExactlyOnceAndInBoundedTime) {
  Options options;
  options.closeTimeout = 200ms;
  auto socket = makeSocket(url("/ws"), {}, options);
  auto id = openAuthenticated(*socket);
  socket->send("last words");
  socket->disconnect(SocketCloseCode::goingBackground);
  EXPECT_FALSE(socket->isConnected());
  // A second disconnect() here could find the close already finished and be reported on its
  // own, so the one-report rule is checked at the end instead.
  EXPECT_EQ(SocketCloseCode::goingBackground, delegate_->waitForDisconnect());

  // The frames sent before disconnect() went out before the close frame with the code.
  auto end = waitForEnd(id);
  ASSERT_TRUE(end);
  EXPECT_EQ(ClosedBy::client, end->closedBy);
  EXPECT_EQ(4001, end->closeCode);
  EXPECT_EQ((std::vector<std::string>{"last words"}), framesAfterAuth(id));

  // A code that cannot travel in a close frame is still the one reported.
  id = open(*socket);
  socket->disconnect(SocketCloseCode::abnormalClosure);
  EXPECT_EQ(SocketCloseCode::abnormalClosure, delegate_->waitForDisconnect(2));
  end = waitForEnd(id);
  ASSERT_TRUE(end);
  EXPECT_EQ(1000, end->closeCode);

  // A peer that stops reading cannot hold the closing handshake up beyond its bound.
  id = open(*socket);
  server_->deafenSockets(Recipients::socket(id));
  socket->send("freeze");
  ASSERT_TRUE(waitFor(id, [](const SocketInfo& s) { return s.framesReceived == 1; }));
  socket->disconnect(SocketCloseCode::otherExpectedClosure);
  EXPECT_EQ(SocketCloseCode::otherExpectedClosure, delegate_->waitForDisconnect(3));

  // Nothing arrives after the report, in particular no second one.
  socket->disconnect(SocketCloseCode::normalClosure);  // closed: reported at once
  EXPECT_EQ(SocketCloseCode::normalClosure, delegate_->waitForDisconnect(4));
  EXPECT_EQ((std::vector<SocketCloseCode>{
                SocketCloseCode::goingBackground, SocketCloseCode::abnormalClosure,
                SocketCloseCode::otherExpectedClosure, SocketCloseCode::normalClosure}),
            delegate_->disconnects());
  EXPECT_EQ(0u, delegate_->count(Kind::error));
}

TEST_F(WebSocketTest, WhileOpeningADisconnectEndsTheAttemptWithItsCodeAndDestructionWithNone) {
  server_->refuseConnections(std::nullopt, emulator::RefusalMode::stall);
  for (const unsigned attempt : {1u, 2u}) {
    auto socket = makeSocket(url("/ws"));
    socket->connect();
    ASSERT_TRUE(server_->waitUntil(
        [&] { return server_->counters().connectionsRefused == attempt; }, kDefaultWait));
    if (attempt == 2) continue;  // destroyed: no call at all
    socket->connect();           // already opening: nothing
    socket->disconnect(SocketCloseCode::otherExpectedClosure);
    EXPECT_EQ(SocketCloseCode::otherExpectedClosure, delegate_->waitForDisconnect());
  }
  EXPECT_EQ(1u, delegate_->events().size());
}

// --- Sending ---

// Request ids are thread * kEach + index, so each thread's order can be read off both ways.
TEST_F(WebSocketTest, SendsFromManyThreadsKeepEachThreadsOrderBothWays) {
  auto socket = makeSocket(url("/ws"));
  const auto id = openAuthenticated(*socket);

  constexpr int kThreads = 4;
  constexpr int kEach = 1000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        socket->send(R"(2{"id":)" + std::to_string(t * kEach + i) +
                     R"(,"path":"/echo","method":"GET"})");
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(delegate_->waitFor(Kind::message, kThreads * kEach + 1));
  const auto idOf = [](const std::string& frame) { return std::stoi(frame.substr(7)); };
  std::vector<int> sent(kThreads, 0);
  for (const auto& frame : framesAfterAuth(id)) {
    const int n = idOf(frame);
    EXPECT_EQ(sent[n / kEach]++, n % kEach) << frame;
  }
  std::vector<int> answered(kThreads, 0);
  const auto messages = delegate_->messages();
  for (std::size_t m = 1; m < messages.size(); ++m) {
    const int n = idOf(messages[m]);
    EXPECT_EQ(answered[n / kEach]++, n % kEach) << messages[m];
  }
}

// --- Opening failures and time limits ---

// A silent peer, with TLS or without, cannot keep the opening pending for ever either.
TEST_F(WebSocketTest, FailuresToOpenAreReportedAsAbnormalClosureWithTheirCause) {
  using emulator::RefusalMode;
  const struct {
    std::optional<RefusalMode> refusal;
    emulator::UpgradeAnswer answer;
    const char* path;
    bool tls;
    const char* cause;
  } cases[] = {
      // No path: the URL names a port where nothing listens. (An emulator that closes its
      // listener may still accept from the backlog and then reset, failing at the upgrade.)
      {std::nullopt, {}, nullptr, false, "connecting to ws://127.0.0.1:"},
      {std::nullopt, {.rejectStatus = 403}, "/ws", false, "HTTP 403"},
      {std::nullopt, {.subprotocol = "other"}, "/kel", false, "sub-protocol \"other\""},
      {RefusalMode::stall, {}, "/ws", false, "timed out"},
      {RefusalMode::stall, {}, "/ws", true, "timed out"},
  };
  Options options;
  options.openTimeout = 300ms;
  std::size_t reports = 0;
  for (const auto& c : cases) {
    startServer(c.tls ? tlsServer(TestCertificates::shared().localhost()) : emulator::Options{});
    server_->setUpgradeAnswer(c.answer);
    if (c.refusal) server_->refuseConnections(std::nullopt, *c.refusal);
    auto socket =
        makeSocket(c.path ? url(c.path) : "ws://127.0.0.1:" + std::to_string(closedPort()) + "/ws",
                   {"kel"}, options);
    socket->connect();
    EXPECT_EQ(SocketCloseCode::abnormalClosure, delegate_->waitForDisconnect(++reports)) << c.cause;
    EXPECT_THAT(delegate_->errors().back(), HasSubstr(c.cause));
  }
  EXPECT_EQ(reports, delegate_->errors().size());
  EXPECT_EQ(0u, delegate_->count(Kind::connected));
}

TEST_F(WebSocketTest, AnIdleConnectionIsKeptAliveAndADeafPeerIsDetected) {
  Options options;
  options.keepAliveTimeout = 400ms;
  auto socket = makeSocket(url("/ws"), {}, options);
  const auto id = open(*socket);
  // A healthy peer answers the pings the socket sends when nothing arrives.
  ASSERT_TRUE(waitFor(id, [](const SocketInfo& s) { return s.pingsReceived >= 3; }));
  EXPECT_TRUE(socket->isConnected());
  EXPECT_EQ(0u, delegate_->count(Kind::disconnected));
  // Once it stops reading, nothing answers, and the connection counts as lost.
  server_->deafenSockets(Recipients::socket(id));
  socket->send("freeze");
  EXPECT_EQ(SocketCloseCode::abnormalClosure, delegate_->waitForDisconnect());
}

// --- Destruction ---

TEST_F(WebSocketTest, ASocketMayBeDestroyedFromInsideItsOwnCallbacks) {
  for (auto kind : {Kind::connected, Kind::message, Kind::disconnected}) {
    auto delegate = std::make_shared<RecordingSocketDelegate>();
    std::mutex mutex;
    auto socket = makeSocket(url("/ws"));
    socket->setDelegate(delegate);
    std::promise<void> destroyed;
    delegate->setHook([&](const RecordingSocketDelegate::Event& event) {
      if (event.kind != kind) return;
      std::shared_ptr<WebSocketTaskConnectionWrapper> last;
      {
        std::lock_guard lock(mutex);
        last = std::move(socket);
      }
      for (int i = 0; i < 100; ++i) last->send("pending " + std::to_string(i));
      last.reset();  // the destructor runs on the network thread
      destroyed.set_value();
    });
    {
      std::lock_guard lock(mutex);
      socket->connect();
    }
    ASSERT_NE(0u, nextSocket()) << name(kind);
    if (kind == Kind::message) server_->sendText(Recipients::socket(last_), "bye");
    if (kind == Kind::disconnected) server_->closeSockets(Recipients::socket(last_), 1000);
    ASSERT_EQ(std::future_status::ready, destroyed.get_future().wait_for(kDefaultWait))
        << name(kind);
    // The connection is dropped, without a close frame and without any further call.
    const auto end = waitForEnd(last_);
    ASSERT_TRUE(end) << name(kind);
    if (kind != Kind::disconnected) {
      EXPECT_NE(ClosedBy::client, end->closedBy) << name(kind);
    }
    EXPECT_EQ(kind, delegate->events().back().kind) << name(kind);
    EXPECT_EQ("", delegate->contractViolations());
  }
}

// --- TLS ---

TEST_F(WebSocketTest, OnlyCertificatesThatProveTheServersIdentityAreAccepted) {
  const auto& certificates = TestCertificates::shared();
  test::TemporaryFile caFile(certificates.caCertificatePem());
  Options fromPem;
  fromPem.extraCertificateAuthoritiesPem = certificates.caCertificatePem();
  Options fromFile;
  fromFile.extraCertificateAuthoritiesFile = caFile.path();
  fromFile.useSystemTrustStore = false;
  const struct {
    const char* what;
    test::CertifiedKey serverCertificate;
    const char* host;
    Options options;
    const char* refusal;  // empty: accepted
  } cases[] = {
      {"a name", certificates.localhost(), "localhost", fromPem, ""},
      {"an address", certificates.localhost(), "127.0.0.1", fromFile, ""},
      // The system's store alone does not know the test authority: verification is on.
      {"system store only", certificates.localhost(), "localhost", Options{},
       "unable to get local issuer certificate"},
      {"self-signed", certificates.selfSigned(), "localhost", fromPem, "self-signed certificate"},
      {"wrong host name", certificates.wrongHost(), "localhost", fromPem, "hostname mismatch"},
      {"wrong address", certificates.wrongHost(), "127.0.0.1", fromPem, "IP address mismatch"},
      {"expired", certificates.expired(), "localhost", fromPem, "certificate has expired"},
  };
  std::size_t reports = 0;
  for (const auto& c : cases) {
    startServer(tlsServer(c.serverCertificate));
    auto socket = makeSocket(url("/wss", c.host), {"kel"}, c.options);
    if (*c.refusal) {
      socket->connect();
      EXPECT_EQ(SocketCloseCode::tlsHandshakeFailure, delegate_->waitForDisconnect(++reports))
          << c.what;
      EXPECT_THAT(delegate_->errors().back(), HasSubstr(c.refusal)) << c.what;
      continue;
    }
    const auto id = open(*socket);
    ASSERT_NE(0u, id) << c.what;
    server_->sendText(Recipients::socket(id), c.what);
    ASSERT_TRUE(delegate_->waitFor(Kind::message, reports + 1)) << c.what;
    EXPECT_EQ(c.what, delegate_->messages().back());
    // SNI names hosts only, never addresses.
    EXPECT_EQ(std::string(c.host) == "localhost" ? "localhost" : "", info(id).serverName);
    EXPECT_TRUE(info(id).tls);
    EXPECT_EQ(0u, delegate_->count(Kind::error)) << c.what;
    socket->disconnect(SocketCloseCode::normalClosure);
    EXPECT_EQ(SocketCloseCode::normalClosure, delegate_->waitForDisconnect(++reports));
  }
  EXPECT_EQ(2u, delegate_->count(Kind::connected));
  // wss to a server that does not speak TLS at all.
  startServer();
  auto plain = makeSocket("wss://127.0.0.1:" + std::to_string(port_) + "/ws", {}, fromPem);
  plain->connect();
  EXPECT_EQ(SocketCloseCode::tlsHandshakeFailure, delegate_->waitForDisconnect(++reports));
}

// --- Construction ---

TEST(WebSocketTaskConnectionWrapper, RefusesWhatCouldNeverConnect) {
  Options badPem, missingFile;
  badPem.extraCertificateAuthoritiesPem = "not a certificate";
  missingFile.extraCertificateAuthoritiesFile = "/nonexistent/ca.pem";
  const struct {
    const char* url;
    std::vector<std::string> protocols;
    Options options;
  } refused[] = {{"https://127.0.0.1/ws", {}, {}},
                 {"ws:relative", {}, {}},
                 {"ws://127.0.0.1/ws", {"two words"}, {}},
                 {"wss://127.0.0.1/ws", {}, badPem},
                 {"wss://127.0.0.1/ws", {}, missingFile}};
  for (const auto& c : refused) {
    EXPECT_THROW(WebSocketTaskConnectionWrapper(parse(c.url), c.protocols, c.options),
                 std::invalid_argument)
        << c.url;
  }
  EXPECT_NO_THROW(WebSocketTaskConnectionWrapper(parse("WSS://LOCALHOST/ws"), {"kel", "kel.v2"}));
}

}  // namespace
}  // namespace kel::platform
