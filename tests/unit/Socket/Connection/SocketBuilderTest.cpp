#include "ServerClient/Socket/SocketBuilder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

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
  std::shared_ptr<SocketBuilder> builder(std::string socketURL) {
    SocketBuilder::Platform platform;
    platform.makeSocket = [this](const boost::urls::url& url, std::vector<std::string> protocols) {
      sockets_.push_back(std::make_shared<InMemorySocket>(url, std::move(protocols)));
      return sockets_.back();
    };
    platform.clientOptions.socketScheduler = scheduler_;
    platform.clientOptions.connectionScheduler = scheduler_;
    platform.clientOptions.authenticationScheduler = scheduler_;
    platform.clientOptions.reconnectionScheduler = scheduler_;
    return SocketBuilder::create(boost::urls::url("https://kel.test"), boost::urls::url(socketURL),
                                 events_, SocketBuilder::tokenOf(userSession_),
                                 std::move(platform));
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
  auto system = SocketBuilder::Platform::system();
  for (const auto& [url, protocols] : table) {
    SCOPED_TRACE(url);
    EXPECT_EQ(protocols, socketSubProtocols(boost::urls::url(url)));
    // The real WebSocket refuses an invalid sub-protocol; none at all must still give a client.
    SocketBuilder::Platform platform;
    platform.makeSocket = system.makeSocket;
    EXPECT_NE(nullptr,
              SocketBuilder::create(boost::urls::url("https://kel.test"), boost::urls::url(url),
                                    events_, SocketBuilder::tokenOf(userSession_), platform)
                  ->newSocket());
  }
}

TEST_F(SocketBuilderTest, EachNewSocketIsAFreshClientOnAFreshSocket) {
  auto made = builder("wss://kel.test/ws/kel");
  auto first = made->newSocket();
  auto second = made->newSocket();
  ASSERT_NE(nullptr, first);
  ASSERT_NE(nullptr, second);
  EXPECT_NE(first, second);
  ASSERT_EQ(2u, sockets_.size());
  EXPECT_EQ(std::vector<std::string>{"kel"}, sockets_[0]->protocols());
  EXPECT_TRUE(sockets_[0]->request().shouldHandleCookies());
  EXPECT_EQ(SocketState::newSocket(), first->currentStatus());

  // The client answers the socket's events: it was made the socket's listener.
  sockets_[0]->connect();
  EXPECT_EQ(SocketState::connected(), first->currentStatus());
  EXPECT_EQ(SocketState::newSocket(), second->currentStatus());
}

TEST_F(SocketBuilderTest, AReconnectionUsesTheCurrentSessionTokenWhileTheBuilderLives) {
  auto made = builder("wss://kel.test/ws/kel");
  auto client = made->newSocket();
  auto socket = sockets_[0];
  socket->setOptions({.openOnConnect = false});
  auto kelClient = std::dynamic_pointer_cast<KelSocketClient>(client);
  ASSERT_NE(nullptr, kelClient);

  socket->connect();
  socket->open();
  socket->close(platform::SocketCloseCode::abnormalClosure);
  EXPECT_FALSE(kelClient->socketReconnector()->isReconnecting()) << "nobody is signed in";

  userSession_.onNext(Session{"tok-7"});
  socket->connect();
  socket->open();
  socket->close(platform::SocketCloseCode::abnormalClosure);
  scheduler_->advanceBy(3s);
  socket->open();
  EXPECT_EQ("AUTH tok-7", socket->sentTexts().back());

  made.reset();
  socket->close(platform::SocketCloseCode::abnormalClosure);
  EXPECT_FALSE(kelClient->socketReconnector()->isReconnecting())
      << "the client does not keep the builder alive";
}

TEST_F(SocketBuilderTest, WithoutASocketThereIsNoClient) {
  auto made = SocketBuilder::create(boost::urls::url("https://kel.test"),
                                    boost::urls::url("wss://kel.test/ws/kel"), events_,
                                    SocketBuilder::tokenOf(userSession_), {});
  EXPECT_EQ(nullptr, made->newSocket());
}

}  // namespace
}  // namespace kel
