// The emulator as a server: where it listens, stopping, and the kel-emulator program (TLS
// included).

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <future>
#include <system_error>

#include "integration/emulator/EmulatorTestFixture.h"
#include "support/TestCertificates.h"

extern char** environ;

namespace kel::emulator::test {
namespace {

using kel::test::TemporaryFile;
using kel::test::TestCertificates;
using nlohmann::json;
namespace fs = std::filesystem;

TEST_F(EmulatorTest, StartReportsWhereItListensAndAnAddressServesOneEmulator) {
  const auto authority = "127.0.0.1:" + std::to_string(urls_.port);
  EXPECT_EQ("http://" + authority, urls_.kelURL);
  EXPECT_EQ("ws://" + authority + "/kel/websocket", urls_.socketURL);
  EXPECT_THROW(emulator().start(), std::logic_error);

  Emulator samePort({.port = urls_.port});
  EXPECT_THROW(samePort.start(), std::system_error);
  Emulator byName({.host = "localhost"});
  EXPECT_THROW(byName.start(), std::invalid_argument);
  Emulator broken({.tls = TlsOptions{"not a certificate", "not a key"}});
  EXPECT_THROW(broken.start(), std::invalid_argument);

  Emulator v6({.host = "::1", .socketPath = "/socket/v2"});
  v6.addUser("carol");
  const auto token = v6.createSession("carol");
  const auto urls = v6.start();
  EXPECT_EQ("ws://[::1]:" + std::to_string(urls.port) + "/socket/v2", urls.socketURL);
  Client client(urls.socketURL, {});
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
  EXPECT_FALSE(emulator().isRunning());
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

class Program {
 public:
  explicit Program(const std::vector<std::string>& arguments) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category());
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> argv;
    const auto path = programPath().string();
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const int error = posix_spawn(&pid_, path.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    out_ = out[0];
    if (error != 0) throw std::system_error(error, std::generic_category(), "spawn");
  }

  ~Program() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(out_);
  }

  /// Everything up to the first line break; empty when none comes within kWait.
  std::string firstLine() {
    std::string line;
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    char c = 0;
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd fd{out_, POLLIN, 0};
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (::poll(&fd, 1, static_cast<int>(std::max<long>(left.count(), 1))) <= 0) break;
      if (::read(out_, &c, 1) != 1 || c == '\n') return line;
      line += c;
    }
    return {};
  }

  /// The exit status, waiting at most kWait; nothing when the program has not ended by then.
  std::optional<int> waitForExit() {
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
    if (pidfd >= 0) {
      pollfd fd{pidfd, POLLIN, 0};
      const int ready = ::poll(&fd, 1, static_cast<int>(kWait.count()));
      ::close(pidfd);
      if (ready <= 0) return std::nullopt;
    }
    int status = 0;
    if (::waitpid(pid_, &status, 0) != pid_) return std::nullopt;
    pid_ = -1;
    return WIFEXITED(status) ? std::optional<int>(WEXITSTATUS(status)) : std::nullopt;
  }

  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
};

TEST(EmulatorProgram, PrintsItsUrlsAsTheFirstLineServesUntilSigtermAndExitsZero) {
  if (!fs::exists(programPath())) GTEST_SKIP() << "kel-emulator is not built at " << programPath();
  const auto& certificates = TestCertificates::shared();
  TemporaryFile certificateFile(certificates.localhost().certificatePem);
  TemporaryFile keyFile(certificates.localhost().privateKeyPem);
  Program program({"--listen", "127.0.0.1:0", "--tls-cert", certificateFile.path().string(),
                   "--tls-key", keyFile.path().string(), "--user", "alice", "--token",
                   "alice-token", "--user", "bob", "--quiet"});
  const auto line = program.firstLine();
  ASSERT_FALSE(line.empty()) << "no first line";
  const auto startup = json::parse(line);
  const auto port = std::to_string(startup.at("port").get<int>());
  EXPECT_EQ("https://127.0.0.1:" + port, startup.at("kelURL"));
  EXPECT_EQ("wss://127.0.0.1:" + port + "/kel/websocket", startup.at("socketURL"));
  EXPECT_EQ(true, startup.at("tls"));
  ASSERT_EQ(2u, startup.at("users").size());
  EXPECT_EQ("alice-token", startup.at("users")[0].at("token"));
  const auto bobToken = startup.at("users")[1].at("token").get<std::string>();

  Client client(startup.at("socketURL").get<std::string>(),
                {.caPem = certificates.caCertificatePem()});
  ASSERT_TRUE(client.open());
  client.send("AUTH " + bobToken);
  EXPECT_NE(std::string::npos, client.next().find("kapiId"));
  EXPECT_EQ(200, client.request("GET", "/echo").at("status"));

  ::kill(program.pid(), SIGTERM);
  EXPECT_EQ(SocketCloseCode::goingAway, client.end());
  EXPECT_EQ(0, program.waitForExit());
}

// A fixture sets the program up, and what one user changes reaches the sockets of another; a
// fixture that is not valid stops the program with status 2 before it serves anything.
TEST(EmulatorProgram, StartsFromAFixtureAndRefusesAnInvalidOneWithStatusTwo) {
  if (!fs::exists(programPath())) GTEST_SKIP() << "kel-emulator is not built at " << programPath();
  TemporaryFile invalid(R"({"groups": [{"groupId": "g", "name": "G", "owner": "zed"}]})", ".json");
  Program refused({"--fixture", invalid.path().string(), "--quiet"});
  EXPECT_EQ(2, refused.waitForExit());

  TemporaryFile fixture(R"({"users": [{"id": "alice", "token": "alice-token"},
                                      {"id": "bob", "token": "bob-token"}],
                            "groups": [{"groupId": "g", "name": "G", "owner": "alice"}]})",
                        ".json");
  Program program({"--listen", "127.0.0.1:0", "--fixture", fixture.path().string(), "--quiet"});
  const auto line = program.firstLine();
  ASSERT_FALSE(line.empty()) << "no first line";
  const auto startup = json::parse(line);
  ASSERT_EQ(2u, startup.at("users").size());
  const auto url = startup.at("socketURL").get<std::string>();
  Client alice(url, {});
  Client bob(url, {});
  for (auto [client, token] : {std::pair{&alice, "alice-token"}, std::pair{&bob, "bob-token"}}) {
    ASSERT_TRUE(client->open());
    client->send(std::string("AUTH ") + token);
    ASSERT_NE(std::string::npos, client->next().find("kapiId"));
  }
  EXPECT_EQ(
      200,
      alice.request("POST", "/usersGroup/g/participants", {{"targetUserId", "bob"}}).at("status"));
  const auto event = bob.nextObject();
  EXPECT_EQ("/usersGroup", event.at("path"));
  EXPECT_EQ("POST", event.at("method"));
  EXPECT_EQ((json{"bob"}), event.at("body").at("participants"));
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
  Program program({"--listen", "127.0.0.1:0", "--auth-timeout", "0.3", "--user", "alice", "--token",
                   "alice-token", "--quiet"});
  const auto line = program.firstLine();
  ASSERT_FALSE(line.empty()) << "no first line";
  const auto url = json::parse(line).at("socketURL").get<std::string>();
  const rlimit limit{48, 48};
  ASSERT_EQ(0, ::prlimit(program.pid(), RLIMIT_NOFILE, &limit, nullptr)) << std::strerror(errno);

  std::vector<std::unique_ptr<Client>> idle;
  for (int i = 0; i < 60; ++i) {
    idle.push_back(std::make_unique<Client>(url, ClientOptions{}));
    idle.back()->socket().connect();
  }
  Client client(url, {});
  ASSERT_TRUE(client.open()) << "a new client was never served";
  client.send("AUTH alice-token");
  EXPECT_EQ(200, client.request("GET", "/echo").at("status"));
  for (const auto& socket : idle) {
    EXPECT_EQ(platform::socketCloseCodeFrom(kAuthTimeoutCloseCode), socket->end());
  }
}

}  // namespace
}  // namespace kel::emulator::test
