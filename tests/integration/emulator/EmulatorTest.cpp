// The emulator driven by the library's own WebSocket (WebSocketTaskConnectionWrapper), so that
// the emulator and the library are checked against each other on the wire. Here the socket
// protocol where only the emulator's own tests look (authentication and its time limit, what the
// emulator keeps and logs, whom events reach, pings, request faults; the library's integration
// tests cover the usual exchange and the faults of the connection), the emulator as a server
// (where it listens, stopping), and the kel-emulator program (TLS and a fixture included) with
// its exit statuses.

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <future>
#include <mutex>
#include <optional>
#include <system_error>
#include <vector>

#include <boost/url/parse.hpp>
#include <nlohmann/json.hpp>

#include "ServerClient/Socket/Model/ErrorCode.h"
#include "ServerClient/Socket/Model/SocketMessage.h"
#include "ServerClient/platform/HTTPCookieStorage.h"
#include "ServerClient/platform/WebSocketTaskConnectionWrapper.h"
#include "emulator/Emulator.h"
#include "support/RecordingSocketDelegate.h"
#include "support/TestCertificates.h"

namespace kel::emulator::test {
namespace {

using namespace std::chrono_literals;
using kel::test::RecordingSocketDelegate;
using kel::test::TemporaryFile;
namespace fs = std::filesystem;
using nlohmann::json;
using platform::SocketCloseCode;
constexpr std::chrono::milliseconds kWait = kel::test::kDefaultWait;

struct ClientOptions {
  std::vector<std::string> protocols{"websocket"};
  /// Sent as the Cookie header when not empty.
  std::string cookie{};
  /// TLS: trust this authority (PEM) and none of the system's.
  std::string caPem{};
};

/// One client socket and what it received.
class Client {
 public:
  explicit Client(const std::string& url, const ClientOptions& options = {}) {
    platform::WebSocketTaskConnectionWrapper::Options socketOptions;
    socketOptions.cookieStorage = std::make_shared<platform::HTTPCookieStorage>();
    socketOptions.useSystemTrustStore = options.caPem.empty();
    socketOptions.extraCertificateAuthoritiesPem = options.caPem;
    socket_ = std::make_shared<platform::WebSocketTaskConnectionWrapper>(
        boost::urls::parse_uri(url).value(), options.protocols, std::move(socketOptions));
    if (!options.cookie.empty()) {
      auto request = socket_->request();
      request.setHeaderField("Cookie", options.cookie);
      socket_->setRequest(request);
    }
    socket_->setDelegate(delegate_);
  }

  /// True once the upgrade succeeded; false when the attempt ended first.
  bool open() {
    using Kind = RecordingSocketDelegate::Kind;
    socket_->connect();
    delegate_->waitForAny({Kind::connected, Kind::disconnected}, 1, kWait);
    return delegate_->count(Kind::connected) == 1 && delegate_->count(Kind::disconnected) == 0;
  }

  void send(std::string text) { socket_->send(std::move(text)); }

  /// The next text message not read yet; throws when none comes.
  std::string next() {
    if (!delegate_->waitFor(RecordingSocketDelegate::Kind::message, read_ + 1, kWait)) {
      throw std::runtime_error("no message " + std::to_string(read_ + 1));
    }
    return delegate_->messages().at(read_++);
  }
  /// The object of the next message ("3" and a JSON object): a response or an event.
  json nextObject() { return json::parse(next().substr(1)); }

  std::int64_t sendRequest(std::string_view method, std::string_view path,
                           const json& body = json::object()) {
    const auto id = nextId_++;
    send("2" + json{{"id", id}, {"path", path}, {"method", method}, {"body", body}}.dump());
    return id;
  }
  /// Sends a request and reads on until its response, skipping whatever comes before it.
  json request(std::string_view method, std::string_view path, const json& body = json::object()) {
    const auto id = sendRequest(method, path, body);
    for (;;) {
      const auto message = next();
      auto object = json::parse(message.substr(1), nullptr, false);
      if (message.starts_with('3') && object.is_object() && object.value("id", json()) == id) {
        return object;
      }
    }
  }

  /// How the connection ended, once it has.
  std::optional<SocketCloseCode> end() { return delegate_->waitForDisconnect(1, kWait); }

  platform::WebSocketTaskConnectionWrapper& socket() { return *socket_; }

 private:
  std::shared_ptr<RecordingSocketDelegate> delegate_ = std::make_shared<RecordingSocketDelegate>();
  std::shared_ptr<platform::WebSocketTaskConnectionWrapper> socket_;
  std::size_t read_ = 0;
  std::int64_t nextId_ = 1;
};

/// An emulator with users alice and bob, one session each, started on a free loopback port.
class EmulatorTest : public ::testing::Test {
 protected:
  void SetUp() override { start(); }

  /// Restarts with other options (the emulator of SetUp is replaced).
  void start(Options options = {}) {
    emulator_.reset();
    emulator_ = std::make_unique<Emulator>(std::move(options));
    emulator_->addUser("alice");
    emulator_->addUser("bob");
    aliceToken_ = emulator_->createSession("alice");
    bobToken_ = emulator_->createSession("bob");
    urls_ = emulator_->start();
    lastSocket_ = 0;
  }

  Emulator& emulator() { return *emulator_; }

  /// A connected socket; lastSocket_ is its id. The emulator registers a socket just after its
  /// upgrade answer goes out, hence the wait.
  std::unique_ptr<Client> connect(ClientOptions options = {}) {
    auto client = std::make_unique<Client>(urls_.socketURL, options);
    EXPECT_TRUE(client->open()) << "the upgrade failed";
    const auto before = lastSocket_;
    auto info = emulator_->waitForSocket([&](const SocketInfo& s) { return s.id > before; }, kWait);
    EXPECT_TRUE(info.has_value()) << "the emulator did not register the socket";
    if (info) lastSocket_ = info->id;
    return client;
  }

  /// A socket authenticated with `token`; fails the test when the emulator does not acknowledge.
  std::unique_ptr<Client> connectAs(const std::string& token) {
    auto client = connect();
    client->send("AUTH " + token);
    const auto ack = client->next();
    EXPECT_NE(std::string::npos, ack.find("kapiId")) << ack;
    return client;
  }

  /// Whether a new socket can open now.
  bool canConnect() { return Client(urls_.socketURL).open(); }

  std::unique_ptr<Emulator> emulator_;
  Urls urls_;
  std::string aliceToken_;
  std::string bobToken_;
  SocketId lastSocket_ = 0;
};

TEST_F(EmulatorTest, SocketsThatDoNotAuthenticateInTimeAreClosedWith4408) {
  start({.authTimeout = 200ms});
  auto authenticated = connectAs(aliceToken_);
  auto silent = connect();
  silent->send("hello");  // anything but a valid AUTH leaves the clock running
  EXPECT_EQ(platform::socketCloseCodeFrom(kAuthTimeoutCloseCode), silent->end());
  EXPECT_EQ(1u, emulator().counters().authTimeouts);
  // The authenticated socket's time ran out first, and it is still served.
  EXPECT_EQ(200, authenticated->request("GET", "/echo").at("status"));
}

TEST_F(EmulatorTest, SocketsWithoutAValidSessionAreAnswered401AndWhatTheySendIsNotKept) {
  // An unknown token's AUTH is refused with 4401: KelCliTest's sign-in with a token the socket
  // does not know. The first sub-protocol offered is the one answered; the upgrade's cookies are
  // kept.
  auto client =
      connect({.protocols = {"chat", "superchat"}, .cookie = "a = 1 ;theme=\"dark\";broken; =x"});
  const auto info = emulator().socket(lastSocket_);
  EXPECT_EQ("chat", info->subprotocol);
  EXPECT_EQ((HeaderFields{{"a", "1"}, {"theme", "dark"}}), info->cookies);

  client->send("not a request");
  const auto early = client->request("GET", "/echo");
  EXPECT_EQ(401, errorCode(early)) << early;
  EXPECT_TRUE(emulator().receivedFrames().empty());
  client->send("AUTH " + aliceToken_);
  EXPECT_EQ(200, client->request("GET", "/echo").at("status"));
  emulator().expireSession(aliceToken_);
  EXPECT_EQ(401, client->request("GET", "/echo").at("status"));
}

TEST_F(EmulatorTest, WhatClientsSendIsKeptWithinBounds) {
  start({.frameLogLimit = 3,
         .frameLogBytes = 80,
         .recordedPayloadBytes = 40,
         .signInAttemptLimit = 2,
         .signInAttemptBytes = 1000});
  auto client = connectAs(aliceToken_);
  for (const auto& text : {"one", "two", "three"}) client->send(text);
  client->send(std::string(60, 'L'));
  ASSERT_TRUE(emulator().waitUntil(
      [&] { return emulator().socket(lastSocket_)->framesReceived == 5; }, kWait));
  // By count: the last three, the long one cut to 40 bytes and marked.
  auto frames = emulator().receivedFrames();
  ASSERT_EQ(3u, frames.size());
  EXPECT_EQ("two", frames[0].data);
  EXPECT_EQ(FrameKind::malformed, frames[1].kind);
  EXPECT_EQ(std::string(40, 'L'), frames[2].data);
  EXPECT_EQ(60u, frames[2].size);
  EXPECT_TRUE(frames[2].truncated());
  // By bytes: 80 at most, the oldest forgotten first.
  client->send(std::string(70, 'M'));
  client->send("end");
  ASSERT_TRUE(emulator().waitUntil(
      [&] { return emulator().socket(lastSocket_)->framesReceived == 7; }, kWait));
  frames = emulator().receivedFrames();
  ASSERT_EQ(2u, frames.size());
  EXPECT_EQ(std::string(40, 'M'), frames[0].data);
  EXPECT_EQ("end", frames[1].data);
  // None of those was a request: each was counted, none answered, and the socket stayed open.
  const auto id = client->sendRequest("GET", "/echo");
  EXPECT_EQ(id, client->nextObject().at("id"));
  EXPECT_EQ(6u, emulator().socket(lastSocket_)->malformedFrames);

  // Sign-in attempts: the last two, a context too long to keep left out and marked.
  for (const auto& context :
       {json{{"n", 1}}, json{{"n", 2}}, json{{"pad", std::string(60, 'p')}}}) {
    HttpRequest login;
    login.body = json{{"token", "x"}, {"context", context}}.dump();
    emulator().signIn().handleLogin(login);
  }
  const auto attempts = emulator().signIn().attempts();
  ASSERT_EQ(2u, attempts.size());
  EXPECT_EQ((json{{"n", 2}}), attempts[0].context);
  EXPECT_TRUE(attempts[1].bodyTruncated);
  EXPECT_TRUE(attempts[1].context.is_null());
}

TEST_F(EmulatorTest, LogLinesEscapeControlCharactersAndNeverHoldAWholeToken) {
  std::mutex mutex;
  std::vector<std::string> lines;
  start({.log =
             [&](std::string_view line) {
               std::lock_guard lock(mutex);
               lines.emplace_back(line);
             },
         .logFrames = true});
  auto client = connectAs(aliceToken_);
  client->send("forged\n12:00:00 kel-emulator: socket 9 authenticated as root\x1b[2J\a\r\x7f");
  client->request("POST", "/echo", {{"token", aliceToken_}, {"note", "a\nb"}});
  emulator().stop();

  std::lock_guard lock(mutex);
  bool sawEscapedNewline = false;
  for (const auto& line : lines) {
    for (const char c : line) {
      EXPECT_FALSE(static_cast<unsigned char>(c) < 0x20 || c == 0x7f) << line;
    }
    EXPECT_EQ(std::string::npos, line.find(aliceToken_)) << line;
    sawEscapedNewline = sawEscapedNewline || line.find("forged\\n12:00") != std::string::npos;
  }
  EXPECT_TRUE(sawEscapedNewline);
}

TEST_F(EmulatorTest, EventsReachTheSocketsOfTheChosenUserSessionOrSocket) {
  const auto aliceSecondToken = emulator().createSession("alice");
  auto alice1 = connectAs(aliceToken_);
  const auto alice1Id = lastSocket_;
  auto alice2 = connectAs(aliceSecondToken);
  auto bob = connectAs(bobToken_);
  auto anonymous = connect();  // not among the recipients of any of these

  EXPECT_EQ(2u, emulator().pushEvent(Recipients::user("alice"), "/presence", "PUT", {{"s", 1}}));
  EXPECT_EQ(1u, emulator().pushEvent(Recipients::session(aliceSecondToken), "/alerts", "POST", {}));
  EXPECT_EQ(1u, emulator().pushEvent(Recipients::socket(alice1Id), "/meetings/1", "DELETE", {}));
  EXPECT_EQ(3u, emulator().pushEvent(Recipients::all(), "/conferences", "PUT", {}));
  EXPECT_EQ((json{{"path", "/presence"}, {"method", "PUT"}, {"body", {{"s", 1}}}}),
            alice1->nextObject());
  // Each socket's next frames are exactly the events meant for it, in order.
  for (const auto& [client, paths] :
       {std::pair{alice1.get(), std::vector<std::string>{"/meetings/1", "/conferences"}},
        {alice2.get(), {"/presence", "/alerts", "/conferences"}},
        {bob.get(), {"/conferences"}}}) {
    for (const auto& path : paths) EXPECT_EQ(path, client->nextObject().at("path"));
  }
}

TEST_F(EmulatorTest, PingsGoOutAtTheConfiguredPeriodAndPongsAreCounted) {
  start({.pingPeriod = 20ms});
  auto client = connect();
  EXPECT_EQ(SocketMessage::Kind::ping, SocketMessage::create(client->next()).kind());
  client->socket().sendPong();
  EXPECT_TRUE(emulator().waitUntil(
      [&] { return emulator().socket(lastSocket_)->pongsReceived == 1; }, kWait));
}

// --- Faults ----------------------------------------------------------------------------

TEST_F(EmulatorTest, DelayedAnswersLetLaterRequestsOvertakeThem) {
  auto client = connectAs(aliceToken_);
  emulator().faultNextRequests(1, Fault::delay(300ms));
  const auto started = std::chrono::steady_clock::now();
  const auto delayed = client->sendRequest("POST", "/echo", {{"n", 1}});
  const auto prompt = client->sendRequest("POST", "/echo", {{"n", 2}});
  EXPECT_EQ(prompt, client->nextObject().at("id"));
  auto late = client->nextObject();
  EXPECT_EQ(delayed, late.at("id"));
  EXPECT_EQ((json{{"n", 1}}), late.at("body"));
  EXPECT_GE(std::chrono::steady_clock::now() - started, 300ms);
}

TEST_F(EmulatorTest, FaultsAnswerInsteadOfTheHandlerForTheRequestsTheyMatch) {
  std::atomic<int> calls = 0;
  emulator().resources().route("GET", "/presence", [&](const ResourceRequest&) {
    ++calls;
    return Reply::ok({{"from", "handler"}});
  });
  auto target = connectAs(aliceToken_);
  const auto targetId = lastSocket_;
  auto bystander = connectAs(bobToken_);
  // Counted faults are used up in the order they were armed.
  emulator().faultNextRequests(1, Fault::status(503, {{"from", "fault"}}));
  emulator().faultNextRequests(1, Fault::errorCode(42));
  EXPECT_EQ((json{{"from", "fault"}}), target->request("GET", "/presence").at("body"));
  const auto coded = target->request("GET", "/presence");
  EXPECT_EQ(42, errorCode(coded)) << coded;
  EXPECT_EQ((json{{"from", "handler"}}), target->request("GET", "/presence").at("body"));
  EXPECT_EQ(1, calls);

  // A standing fault takes only the requests of its socket, method and path.
  emulator().faultAllRequests(Fault::status(500),
                              {.socket = targetId, .method = "post", .pathPrefix = "/echo"});
  for (int i = 0; i < 2; ++i) EXPECT_EQ(500, target->request("POST", "/echo?x").at("status"));
  EXPECT_EQ(200, target->request("GET", "/echo").at("status"));
  EXPECT_EQ(404, target->request("POST", "/other").at("status"));
  EXPECT_EQ(200, bystander->request("POST", "/echo").at("status"));
  emulator().clearFaults();
  EXPECT_EQ(200, target->request("POST", "/echo").at("status"));
}

TEST_F(EmulatorTest, AClosedListenerRefusesConnectionsForItsTimeOnly) {
  auto survivor = connectAs(aliceToken_);
  emulator().refuseConnections(200ms, RefusalMode::closeListener);
  EXPECT_FALSE(canConnect());
  ASSERT_TRUE(emulator().waitUntil([&] { return !emulator().isRefusingConnections(); }, kWait));
  EXPECT_TRUE(canConnect());
  EXPECT_EQ(200, survivor->request("GET", "/echo").at("status")) << "open sockets are unaffected";
}

TEST_F(EmulatorTest, StartRefusesWhatItCannotServeAndListensWhereAsked) {
  EXPECT_THROW(emulator().start(), std::logic_error);
  EXPECT_THROW(Emulator({.port = urls_.port}).start(), std::system_error);
  EXPECT_THROW(Emulator({.host = "localhost"}).start(), std::invalid_argument);
  EXPECT_THROW(Emulator({.tls = TlsOptions{"not a certificate", "not a key"}}).start(),
               std::invalid_argument);

  Emulator v6({.host = "::1", .socketPath = "/socket/v2"});
  v6.addUser("carol");
  const auto token = v6.createSession("carol");
  const auto urls = v6.start();
  EXPECT_EQ("ws://[::1]:" + std::to_string(urls.port) + "/socket/v2", urls.socketURL);
  Client client(urls.socketURL);
  ASSERT_TRUE(client.open());
  client.send("AUTH " + token);
  EXPECT_EQ(200, client.request("GET", "/echo").at("status"));
}

TEST_F(EmulatorTest, StopClosesSocketsWithGoingAwayAndDropsLaterAnswers) {
  std::promise<Responder> handed;
  emulator().resources().routeAsync(
      "GET", "/later", [&](ResourceRequest, Responder responder) { handed.set_value(responder); });
  auto client = connectAs(aliceToken_);
  client->sendRequest("GET", "/later");
  auto future = handed.get_future();
  ASSERT_EQ(std::future_status::ready, future.wait_for(kWait));
  auto responder = future.get();

  emulator().stop();
  EXPECT_EQ(SocketCloseCode::goingAway, client->end());
  EXPECT_EQ(ClosedBy::server, emulator().socket(lastSocket_)->closedBy);
  EXPECT_FALSE(canConnect());
  emulator().stop();

  emulator_.reset();
  EXPECT_TRUE(responder.respond(Reply::ok())) << "the first answer counts even if it goes nowhere";
  EXPECT_FALSE(responder.respond(Reply::withStatus(500))) << "answered once only";
}

// --- The program ---------------------------------------------------------------------------

fs::path programPath() {
  // Built beside this test program: build/<preset>/tests/.. -> build/<preset>/tools/.
  return fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools" / "kel-emulator";
}

/// kel-emulator started through the shell, which first tells its process id.
class Program {
 public:
  explicit Program(const std::string& arguments)
      : out_(::popen(
            ("echo $$; exec " + programPath().string() + " " + arguments + " 2>/dev/null").c_str(),
            "r")) {
    std::setvbuf(out_, nullptr, _IONBF, 0);  // so that poll() sees every byte not read yet
    pid_ = std::atoi(line().c_str());
  }
  ~Program() {
    if (pid_ > 0) ::kill(pid_, SIGKILL);
    ::pclose(out_);
  }

  /// The next line of the standard output; empty when none comes within kWait.
  std::string line() {
    pollfd fd{::fileno(out_), POLLIN, 0};
    char text[4096];
    const bool ready = ::poll(&fd, 1, static_cast<int>(kWait.count())) == 1;
    return ready && std::fgets(text, sizeof text, out_) ? text : "";
  }

  /// The exit status once the program has ended, waiting at most kWait; -1 otherwise.
  int exitStatus() {
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
    pollfd fd{pidfd, POLLIN, 0};
    const bool ended = ::poll(&fd, 1, static_cast<int>(kWait.count())) == 1;
    ::close(pidfd);
    int status = 0;
    if (!ended || ::waitpid(pid_, &status, 0) != pid_) return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  pid_t pid() const { return pid_; }

 private:
  FILE* out_;
  pid_t pid_ = -1;
};

TEST(EmulatorProgram, RefusesABadCommandLineOrFixtureWithStatusTwo) {
  if (!fs::exists(programPath())) GTEST_SKIP() << "kel-emulator is not built at " << programPath();
  TemporaryFile invalid(R"({"groups": [{"groupId": "g", "name": "G", "owner": "zed"}]})", ".json");
  for (const auto& arguments : std::vector<std::string>{
           "--listen nowhere", "--fixture /nonexistent", "--fixture " + invalid.path().string()}) {
    EXPECT_EQ(2, Program(arguments + " --quiet").exitStatus()) << arguments;
  }
}

// The first line tells where the program serves and its users' tokens; the fixture is served;
// SIGTERM ends the program with status 0.
TEST(EmulatorProgram, ServesItsUsersAndFixtureOverTlsUntilSigterm) {
  if (!fs::exists(programPath())) GTEST_SKIP() << "kel-emulator is not built at " << programPath();
  const auto& certificates = kel::test::TestCertificates::shared();
  TemporaryFile certificate(certificates.localhost().certificatePem);
  TemporaryFile key(certificates.localhost().privateKeyPem);
  TemporaryFile fixture(
      R"({"users": [{"id": "bob", "token": "bob-token", "signInToken": "bob-outside"}],
                            "groups": [{"groupId": "g", "name": "G", "owner": "alice"}]})",
      ".json");
  Program program("--listen 127.0.0.1:0 --tls-cert " + certificate.path().string() + " --tls-key " +
                  key.path().string() + " --user alice --token alice-token" + " --fixture " +
                  fixture.path().string() + " --quiet");
  const auto startup = json::parse(program.line(), nullptr, false);
  ASSERT_TRUE(startup.is_object()) << "no first line";
  const auto port = std::to_string(startup.at("port").get<int>());
  EXPECT_EQ("https://127.0.0.1:" + port, startup.at("kelURL"));
  EXPECT_EQ("wss://127.0.0.1:" + port + "/kel/websocket", startup.at("socketURL"));
  EXPECT_EQ(true, startup.at("tls"));
  ASSERT_EQ(2u, startup.at("users").size());
  EXPECT_EQ("alice-token", startup["users"][0].at("token"));
  EXPECT_TRUE(startup["users"][0].contains("sessionId"));
  EXPECT_EQ("bob-token", startup["users"][1].at("token"));
  EXPECT_EQ("bob-outside", startup["users"][1].at("signInToken"));

  Client bob(startup.at("socketURL").get<std::string>(),
             {.caPem = certificates.caCertificatePem()});
  ASSERT_TRUE(bob.open());
  bob.send("AUTH bob-token");
  EXPECT_EQ(200, bob.request("GET", "/usersGroup/g").at("status"));

  ::kill(program.pid(), SIGTERM);
  EXPECT_EQ(0, program.exitStatus());
}

// Sockets that never authenticate must not starve the emulator of descriptors: they are closed
// after --auth-timeout, and running out of descriptors on accept only delays new clients.
TEST(EmulatorProgram, KeepsServingWhenIdleSocketsExhaustItsDescriptors) {
  if (!fs::exists(programPath())) GTEST_SKIP() << "kel-emulator is not built at " << programPath();
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // The sanitizers' runtime needs descriptors of its own (UBSan probes memory through a pipe
  // before it checks a virtual call), so out of them it reports faults that are not there.
  GTEST_SKIP() << "not meaningful with the sanitizers' runtime out of descriptors";
#endif
  Program program(
      "--listen 127.0.0.1:0 --auth-timeout 0.3 --user alice --token alice-token --quiet");
  const auto startup = json::parse(program.line(), nullptr, false);
  ASSERT_TRUE(startup.is_object()) << "no first line";
  const auto url = startup.at("socketURL").get<std::string>();
  const rlimit limit{48, 48};
  ASSERT_EQ(0, ::prlimit(program.pid(), RLIMIT_NOFILE, &limit, nullptr)) << std::strerror(errno);

  std::vector<std::unique_ptr<Client>> idle;
  for (int i = 0; i < 60; ++i) {
    idle.push_back(std::make_unique<Client>(url));
    idle.back()->socket().connect();
  }
  Client client(url);
  ASSERT_TRUE(client.open()) << "a new client was never served";
  client.send("AUTH alice-token");
  EXPECT_EQ(200, client.request("GET", "/echo").at("status"));
  for (const auto& socket : idle) {
    EXPECT_EQ(platform::socketCloseCodeFrom(kAuthTimeoutCloseCode), socket->end());
  }
}

}  // namespace
}  // namespace kel::emulator::test
