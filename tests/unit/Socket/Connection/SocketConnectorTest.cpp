#include "ServerClient/Socket/SocketConnector.h"

#include <gtest/gtest.h>

#include "ServerClient/Socket/SocketAuthenticator.h"
#include "unit/Socket/Client/SocketTestSupport.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using platform::InMemorySocket;
using Fields = std::vector<platform::UpgradeRequest::HeaderField>;

class ConnectionTest : public ::testing::Test {
 protected:
  std::shared_ptr<testing::StreamRecorder<rx::Unit>> run(const rx::Single<rx::Unit>& single) {
    return records_.emplace_back(testing::record(single.asObservable(), scheduler_));
  }

  std::shared_ptr<rx::TestScheduler> scheduler_ = std::make_shared<rx::TestScheduler>();
  std::shared_ptr<InMemorySocket> socket_ =
      std::make_shared<InMemorySocket>(boost::urls::url("wss://kel.test/wss/kel?wss=1"));
  std::shared_ptr<KelSocketEventHandler> handler_ = KelSocketEventHandler::create(socket_);
  std::vector<std::shared_ptr<testing::StreamRecorder<rx::Unit>>> records_;
};

using SocketConnectorTest = ConnectionTest;

TEST_F(SocketConnectorTest, SucceedsWhenTheSocketOpensWithinItsTimeOut) {
  socket_->setOptions({.openOnConnect = false});
  const SocketConnector connector(socket_, handler_, kConnectionTimeout,
                                  {.connectionScheduler = scheduler_});
  auto connecting = connector.connect();
  EXPECT_EQ(0u, socket_->connectCount()) << "nothing happens before the subscription";
  auto outcome = run(connecting);
  EXPECT_EQ(1u, socket_->connectCount());
  scheduler_->advanceBy(19s);
  EXPECT_EQ(0u, outcome->values().size());
  socket_->open();
  EXPECT_EQ(1u, outcome->values().size());
  EXPECT_EQ(0u, scheduler_->pendingCount()) << "the time-out was cancelled";
  EXPECT_EQ(1u, run(connector.connect())->values().size()) << "already connected: answered at once";
}

TEST_F(SocketConnectorTest, SendsTheCookiesOfTheSocketURLOrElseOfItsHttpsTwin) {
  const std::string wss = "wss://kel.test/wss/kel?wss=1";
  const std::string https = "https://kel.test/https/kel?https=1";  // every "wss" is replaced
  struct Case {
    std::optional<Fields> forWss, forHttps;
    std::vector<std::string> asked;
    std::optional<std::string> cookie;
    bool fails = false;
  };
  const Fields other{{"Cookie", "other=1"}};
  const Case cases[] = {
      {Fields{{"Cookie", "session=abc; lb=2"}}, other, {wss}, "session=abc; lb=2"},
      {std::nullopt, Fields{{"Cookie", "from=https"}}, {wss, https}, "from=https"},
      {Fields{}, other, {wss}, std::nullopt},  // an empty list is an answer
      {Fields{{"Cookie", "a=1\r\nX-Injected: 1"}}, other, {wss}, std::nullopt, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.asked.size());
    auto socket = std::make_shared<InMemorySocket>(boost::urls::url(wss));
    auto handler = KelSocketEventHandler::create(socket);
    std::vector<std::string> asked;
    auto cookies = [&](boost::urls::url_view url) {
      asked.emplace_back(url.buffer());
      return url.scheme() == "https" ? c.forHttps : c.forWss;
    };
    const auto& outcome =
        run(SocketConnector(socket, handler, kConnectionTimeout,
                            {.connectionScheduler = scheduler_, .cookieHeaders = cookies})
                .connect());
    EXPECT_EQ(c.asked, asked);
    EXPECT_EQ(c.fails, static_cast<bool>(outcome->error()));
    ASSERT_EQ(c.fails ? 0u : 1u, socket->connectRequests().size());
    if (!c.fails) {
      EXPECT_EQ(c.cookie, socket->connectRequests()[0].headerField("Cookie"));
    }
  }
}

TEST_F(ConnectionTest, AuthenticationSendsTheTokenAndFailsAfterTwentySecondsWithoutAnAnswer) {
  socket_->connect();
  const SocketAuthenticator authenticator(socket_, handler_, kConnectionTimeout,
                                          {.authenticationScheduler = scheduler_});
  auto outcome = run(authenticator.authenticate("tok-4"));
  EXPECT_EQ(std::vector<std::string>{"AUTH tok-4"}, socket_->sentTexts());
  scheduler_->advanceBy(19'999ms);
  EXPECT_FALSE(outcome->error());
  scheduler_->advanceBy(1ms);
  testing::expectConnectionError(outcome->error(), ConnectionErrorType::timeout, -1);
  EXPECT_EQ(rx::TestScheduler::at(20s), outcome->at());

  socket_->receiveMessage(R"({"kapiId":"k"})");
  EXPECT_EQ(0u, outcome->values().size()) << "nothing after the failure";
  auto again = run(authenticator.authenticate("tok-5"));
  EXPECT_EQ(1u, again->values().size()) << "already authenticated: answered at once";
  EXPECT_EQ(rx::TestScheduler::at(20s), again->at());
}

}  // namespace
}  // namespace kel
