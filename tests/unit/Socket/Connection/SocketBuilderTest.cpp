#include "ServerClient/Socket/SocketBuilder.h"

#include <gtest/gtest.h>

#include "ServerClient/Socket/Events/KelEventHandler.h"
#include "ServerClient/platform/InMemorySocket.h"
#include "ServerClient/rx/TestScheduler.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using platform::InMemorySocket;

struct Session {
  std::string token;
};

class SocketBuilderTest : public ::testing::Test {
 protected:
  std::shared_ptr<SocketBuilder> builder(const std::string& socketURL,
                                         SocketBuilder::Platform platform) {
    return SocketBuilder::create(boost::urls::url("https://kel.test"), boost::urls::url(socketURL),
                                 events_, SocketBuilder::tokenOf(userSession_),
                                 std::move(platform));
  }
  std::shared_ptr<SocketBuilder> builder() {
    SocketBuilder::Platform platform;
    platform.makeSocket = [this](const boost::urls::url& url, std::vector<std::string> protocols) {
      return sockets_.emplace_back(std::make_shared<InMemorySocket>(url, std::move(protocols)));
    };
    platform.clientOptions.socketScheduler = platform.clientOptions.connectionScheduler =
        platform.clientOptions.authenticationScheduler =
            platform.clientOptions.reconnectionScheduler = scheduler_;
    return builder("wss://kel.test/ws/kel", std::move(platform));
  }

  std::shared_ptr<rx::TestScheduler> scheduler_ = std::make_shared<rx::TestScheduler>();
  std::shared_ptr<KelEventHandler> events_ = std::make_shared<KelEventHandler>();
  rx::BehaviorSubject<std::optional<Session>> userSession_{std::nullopt};
  std::vector<std::shared_ptr<InMemorySocket>> sockets_;
};

TEST_F(SocketBuilderTest, TheSubProtocolIsTheLastPathSegmentWhenItIsAToken) {
  using Protocols = std::vector<std::string>;
  const std::vector<std::pair<std::string, Protocols>> table = {
      {"wss://kel.test/ws/kel", {"kel"}},
      {"wss://kel.test/ws/kel/", {"kel"}},
      {"wss://kel.test", {}},
      {"wss://kel.test/", {}},
      {"wss://kel.test/k%40l", {}},  // "k@l"
      {"wss://kel.test/a%20b?x=/y", {}},
  };
  for (const auto& [url, protocols] : table) {
    SCOPED_TRACE(url);
    EXPECT_EQ(protocols, socketSubProtocols(boost::urls::url(url)));
    // The real WebSocket refuses an invalid sub-protocol; none at all must still give a client.
    SocketBuilder::Platform platform;
    platform.makeSocket = SocketBuilder::Platform::system().makeSocket;
    EXPECT_NE(nullptr, builder(url, platform)->newSocket());
  }
  EXPECT_EQ(nullptr, builder("wss://kel.test/ws/kel", {})->newSocket()) << "no socket, no client";
}

TEST_F(SocketBuilderTest, EachClientIsFreshAndReconnectsWithTheSessionTokenWhileTheBuilderLives) {
  auto made = builder();
  auto client = std::dynamic_pointer_cast<KelSocketClient>(made->newSocket());
  ASSERT_NE(nullptr, client);
  EXPECT_NE(client, made->newSocket());
  ASSERT_EQ(2u, sockets_.size());
  auto socket = sockets_[0];
  EXPECT_EQ(std::vector<std::string>{"kel"}, socket->protocols());
  EXPECT_TRUE(socket->request().shouldHandleCookies());
  socket->setOptions({.openOnConnect = false});
  auto loseConnection = [&] {
    socket->connect();
    socket->open();
    socket->close(platform::SocketCloseCode::abnormalClosure);
  };
  loseConnection();
  EXPECT_FALSE(client->socketReconnector()->isReconnecting()) << "nobody is signed in";

  userSession_.onNext(Session{"tok-7"});
  loseConnection();
  scheduler_->advanceBy(3s);
  socket->open();
  EXPECT_EQ("AUTH tok-7", socket->sentTexts().back());

  made.reset();
  socket->close(platform::SocketCloseCode::abnormalClosure);
  EXPECT_FALSE(client->socketReconnector()->isReconnecting())
      << "the client does not keep the builder alive";
}

}  // namespace
}  // namespace kel
