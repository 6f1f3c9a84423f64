// The emulator as a server: where it listens, stopping, and the kel-emulator program (TLS and a
// fixture included) with its exit statuses.

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <future>
#include <system_error>

#include "integration/emulator/EmulatorTestFixture.h"
#include "support/TestCertificates.h"

namespace kel::emulator::test {
namespace {

using kel::test::TemporaryFile;
namespace fs = std::filesystem;

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
