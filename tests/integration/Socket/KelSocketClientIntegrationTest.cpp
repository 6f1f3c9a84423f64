// The socket client with the real WebSocket against the emulator over loopback.

#include <gtest/gtest.h>

#include <chrono>
#include <optional>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Socket/Client/KelSocketClient.h"
#include "ServerClient/Socket/Events/KelEventHandler.h"
#include "ServerClient/Socket/Model/PathRepresentable.h"
#include "ServerClient/Socket/Model/Request.h"
#include "ServerClient/Socket/SocketBuilder.h"
#include "ServerClient/platform/HTTPCookieStorage.h"
#include "emulator/Emulator.h"
#include "support/StreamRecorder.h"

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

class SocketClientAgainstEmulator : public ::testing::Test {
 protected:
  // A client made by the builder on the system's platform, as the facade makes it.
  void SetUp() override {
    // Earlier tests' sign-ins leave their cookies in the shared storage, for the same host.
    platform::HTTPCookieStorage::shared()->removeAllCookies();
    emulator_.addUser("alice");
    token_ = emulator_.createSession("alice");
    emulator_.resources().route("POST", "/broken", [](const emulator::ResourceRequest&) {
      return emulator::Reply::message(500, "down for maintenance");
    });
    urls_ = emulator_.start();
    builder_ = SocketBuilder::create(
        boost::urls::url(urls_.kelURL), boost::urls::url(urls_.socketURL), events_,
        [this] { return std::optional(token_); }, SocketBuilder::Platform::system());
    client_ = std::dynamic_pointer_cast<KelSocketClient>(builder_->newSocket());
  }
  void TearDown() override {
    client_->stop(platform::SocketCloseCode::normalClosure);
    platform::HTTPCookieStorage::shared()->removeAllCookies();
  }

  /// Sends and waits for the outcome.
  std::shared_ptr<StreamRecorder<Resource>> send(const AnyRequest& request) {
    auto outcome = std::make_shared<StreamRecorder<Resource>>(client_->send(request));
    EXPECT_TRUE(outcome->waitForEnd());
    return outcome;
  }

  Emulator emulator_;
  emulator::Urls urls_;
  std::string token_;
  std::shared_ptr<KelEventHandler> events_ = std::make_shared<KelEventHandler>();
  std::shared_ptr<SocketBuilder> builder_;
  std::shared_ptr<KelSocketClient> client_;
};

TEST_F(SocketClientAgainstEmulator, SignsInSendsTheSessionCookieAndExchangesRequestsAndEvents) {
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

  auto echoed = send(request(Resources::echo, {{"presence", "away"}}));
  ASSERT_EQ(1u, echoed->values().size()) << describeError(echoed->error());
  EXPECT_EQ(nlohmann::json({{"presence", "away"}}),
            nlohmann::json::parse(echoed->values()[0].data));

  auto broken = send(request(Resources::broken));
  const auto* serverError = errorAs<ConnectionError>(broken->error());
  ASSERT_NE(nullptr, serverError) << describeError(broken->error());
  EXPECT_EQ(ConnectionErrorType::serverError, serverError->type());
  EXPECT_EQ(500, serverError->code());

  auto received = std::make_shared<StreamRecorder<KelEvent>>(events_->eventChannel());
  EXPECT_EQ(1u, emulator_.pushEvent(Recipients::user("alice"), "/presence/alice", "PUT",
                                    {{"status", "away"}}));
  ASSERT_TRUE(received->waitFor([](const KelEvent& e) { return e.param == "alice"; }));
  EXPECT_EQ("PUT", received->values()[0].method);
}

}  // namespace
}  // namespace kel
