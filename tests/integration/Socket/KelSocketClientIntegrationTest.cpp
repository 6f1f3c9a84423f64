// The socket client that the builder makes on the system's platform, against the emulator over
// loopback. KelCliTest's demo exchanges requests and events through it; here, what the upgrade
// carries.

#include <gtest/gtest.h>

#include <chrono>
#include <optional>

#include "ServerClient/Socket/Client/KelSocketClient.h"
#include "ServerClient/Socket/Events/KelEventHandler.h"
#include "ServerClient/Socket/SocketBuilder.h"
#include "ServerClient/platform/HTTPCookieStorage.h"
#include "emulator/Emulator.h"
#include "support/StreamRecorder.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using emulator::Emulator;

class SocketClientAgainstEmulator : public ::testing::Test {
 protected:
  // A client made by the builder on the system's platform, as the facade makes it.
  void SetUp() override {
    // Earlier tests' sign-ins leave their cookies in the shared storage, for the same host.
    platform::HTTPCookieStorage::shared()->removeAllCookies();
    emulator_.addUser("alice");
    token_ = emulator_.createSession("alice");
    urls_ = emulator_.start();
    builder_ = SocketBuilder::create(
        boost::urls::url(urls_.kelURL), boost::urls::url(urls_.socketURL), events_,
        [this] { return std::optional(token_); }, SocketBuilder::Platform::system());
    client_ = std::dynamic_pointer_cast<KelSocketClient>(builder_->newSocket());
  }
  void TearDown() override {
    client_->stop(platform::SocketCloseCode::normalClosure);
    // Closed to the end, as an application waits before exiting: a connection still closing at
    // exit keeps its operations on the network thread, which LeakSanitizer reports.
    EXPECT_NO_THROW(testing::await(client_->socketConnectionEventChannel()
                                       .filter([](const SocketState& state) {
                                         return state.kind() == SocketState::Kind::disconnected;
                                       })
                                       .take(1)
                                       .asSingle()));
    platform::HTTPCookieStorage::shared()->removeAllCookies();
  }

  Emulator emulator_;
  emulator::Urls urls_;
  std::string token_;
  std::shared_ptr<KelEventHandler> events_ = std::make_shared<KelEventHandler>();
  std::shared_ptr<SocketBuilder> builder_;
  std::shared_ptr<KelSocketClient> client_;
};

TEST_F(SocketClientAgainstEmulator, SignsInWithTheSessionCookieAndTheSubProtocol) {
  // The sign-in would have left this cookie for the server's http form of the socket URL.
  ASSERT_TRUE(platform::HTTPCookieStorage::shared()->setCookie(
      "SESSION=abc123; Path=/",
      boost::urls::url("http://127.0.0.1:" + std::to_string(urls_.port))));
  ASSERT_NO_THROW(testing::await(client_->connect(token_).asSingle()));
  ASSERT_EQ(SocketState::authenticated(), client_->currentStatus());
  const auto socket = emulator_.waitForSocket([](auto& s) { return s.authenticated; }, 5s);
  ASSERT_TRUE(socket);
  EXPECT_EQ("SESSION=abc123", socket->cookieHeader);
  EXPECT_EQ("websocket", socket->subprotocol);
}

}  // namespace
}  // namespace kel
