#include "ServerClient/Socket/SocketConnector.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Socket/Events/KelSocketEventHandler.h"
#include "ServerClient/Socket/SocketAuthenticator.h"
#include "ServerClient/platform/InMemorySocket.h"
#include "ServerClient/rx/TestScheduler.h"
#include "support/LogCapture.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using platform::InMemorySocket;
using platform::UpgradeRequest;
using Fields = std::vector<UpgradeRequest::HeaderField>;

struct Outcome {
  int elements = 0;
  std::exception_ptr error;
  std::optional<rx::TimePoint> at;
};

class ConnectionTest : public ::testing::Test {
 protected:
  Outcome run(const rx::Single<rx::Unit>& single) {
    auto outcome = std::make_shared<Outcome>();
    subscriptions_.push_back(single.subscribe(
        [this, outcome](rx::Unit) {
          ++outcome->elements;
          outcome->at = scheduler_->now();
        },
        [this, outcome](std::exception_ptr e) {
          outcome->error = e;
          outcome->at = scheduler_->now();
        }));
    outcomes_.push_back(outcome);
    return *outcome;
  }
  const Outcome& last() const { return *outcomes_.back(); }

  static void expectTimeout(const Outcome& outcome) {
    const auto* error = errorAs<ConnectionError>(outcome.error);
    ASSERT_NE(nullptr, error);
    EXPECT_EQ(ConnectionErrorType::timeout, error->type());
    EXPECT_EQ(-1, error->code());
    EXPECT_EQ("", error->description());
    EXPECT_EQ(rx::TestScheduler::at(20s), outcome.at);
  }

  std::shared_ptr<rx::TestScheduler> scheduler_ = std::make_shared<rx::TestScheduler>();
  std::shared_ptr<InMemorySocket> socket_ =
      std::make_shared<InMemorySocket>(boost::urls::url("wss://kel.test/wss/kel?wss=1"));
  std::shared_ptr<KelSocketEventHandler> handler_ = KelSocketEventHandler::create(socket_);
  std::vector<std::shared_ptr<Outcome>> outcomes_;
  std::vector<rx::Disposable> subscriptions_;
};

class SocketConnectorTest : public ConnectionTest {
 protected:
  SocketConnector connector(CookieHeaderProvider cookies = {}) {
    return SocketConnector(
        socket_, handler_, kConnectionTimeout,
        {.connectionScheduler = scheduler_, .cookieHeaders = std::move(cookies)});
  }
};

TEST_F(SocketConnectorTest, SucceedsWhenTheSocketOpens) {
  testing::LogCapture log;
  socket_->setOptions({.openOnConnect = false});
  auto connecting = connector().connect();
  EXPECT_EQ(0u, socket_->connectCount()) << "nothing happens before the subscription";
  run(connecting);
  EXPECT_EQ(1u, socket_->connectCount());
  scheduler_->advanceBy(19s);
  EXPECT_EQ(0, last().elements);
  socket_->open();
  EXPECT_EQ(1, last().elements);
  EXPECT_EQ(0u, scheduler_->pendingCount()) << "the time-out was cancelled";
  EXPECT_TRUE(log.contains("]: Trying to connect socket"));

  // Already connected: the replayed state answers at once.
  run(connector().connect());
  EXPECT_EQ(1, last().elements);
}

TEST_F(SocketConnectorTest, FailsAfterTwentySecondsWithoutAnOpen) {
  socket_->setOptions({.openOnConnect = false});
  run(connector().connect());
  scheduler_->advanceBy(19'999ms);
  EXPECT_FALSE(last().error);
  scheduler_->advanceBy(1ms);
  expectTimeout(last());
  socket_->open();
  EXPECT_EQ(0, last().elements) << "nothing after the failure";
}

TEST_F(SocketConnectorTest, SendsTheCookiesOfTheSocketURL) {
  std::vector<std::string> asked;
  auto cookies = [&](boost::urls::url_view url) -> std::optional<Fields> {
    asked.emplace_back(url.buffer());
    return Fields{{"Cookie", "session=abc; lb=2"}};
  };
  run(connector(cookies).connect());
  EXPECT_EQ(std::vector<std::string>{"wss://kel.test/wss/kel?wss=1"}, asked);
  ASSERT_EQ(1u, socket_->connectRequests().size());
  EXPECT_EQ("session=abc; lb=2", socket_->connectRequests()[0].headerField("Cookie"));
  EXPECT_EQ(1, last().elements);
}

TEST_F(SocketConnectorTest, FallsBackToTheHttpsURLOnlyWhenTheStorageHasNoListForTheSocketURL) {
  std::vector<std::string> asked;
  auto cookies = [&](boost::urls::url_view url) -> std::optional<Fields> {
    asked.emplace_back(url.buffer());
    if (url.scheme() == "https") return Fields{{"Cookie", "from=https"}};
    return std::nullopt;
  };
  run(connector(cookies).connect());
  EXPECT_EQ((std::vector<std::string>{"wss://kel.test/wss/kel?wss=1",
                                      "https://kel.test/https/kel?https=1"}),
            asked)
      << "every \"wss\" of the text is replaced";
  EXPECT_EQ("from=https", socket_->connectRequests().at(0).headerField("Cookie"));

  // An empty list is an answer: no fallback, and no field.
  asked.clear();
  auto none = [&](boost::urls::url_view url) -> std::optional<Fields> {
    asked.emplace_back(url.buffer());
    return Fields{};
  };
  auto fresh = std::make_shared<InMemorySocket>(boost::urls::url("wss://kel.test/ws/kel"));
  auto freshHandler = KelSocketEventHandler::create(fresh);
  run(SocketConnector(fresh, freshHandler, kConnectionTimeout,
                      {.connectionScheduler = scheduler_, .cookieHeaders = none})
          .connect());
  EXPECT_EQ(1u, asked.size());
  EXPECT_TRUE(fresh->connectRequests().at(0).headerFields().empty());
}

TEST_F(SocketConnectorTest, AnUnusableCookieFailsTheAttempt) {
  auto cookies = [](boost::urls::url_view) -> std::optional<Fields> {
    return Fields{{"Cookie", "a=1\r\nX-Injected: 1"}};
  };
  run(connector(cookies).connect());
  EXPECT_TRUE(last().error);
  EXPECT_EQ(0u, socket_->connectCount());
}

class SocketAuthenticatorTest : public ConnectionTest {
 protected:
  SocketAuthenticator authenticator() {
    return SocketAuthenticator(socket_, handler_, kConnectionTimeout,
                               {.authenticationScheduler = scheduler_});
  }
};

TEST_F(SocketAuthenticatorTest, SendsTheTokenAndSucceedsOnTheAcknowledgement) {
  testing::LogCapture log;
  socket_->connect();
  run(authenticator().authenticate("tok-1"));
  EXPECT_EQ(std::vector<std::string>{"AUTH tok-1"}, socket_->sentTexts());
  EXPECT_EQ(0, last().elements);
  socket_->receiveMessage(R"({"kapiId":"k"})");
  EXPECT_EQ(1, last().elements);
  EXPECT_EQ(0u, scheduler_->pendingCount());
  EXPECT_TRUE(log.contains("]: Trying to authenticate socket"));
}

TEST_F(SocketAuthenticatorTest, CompletesAtOnceWhenAlreadyAuthenticated) {
  socket_->connect();
  socket_->receiveMessage(R"({"kapiId":"k"})");
  run(authenticator().authenticate("tok-2"));
  EXPECT_EQ(1, last().elements);
  EXPECT_EQ(rx::TestScheduler::at(0s), last().at);
}

TEST_F(SocketAuthenticatorTest, AnAcknowledgementWhileTheFrameIsWrittenIsNotMissed) {
  socket_->connect();
  socket_->setSendHandler(
      [this](const std::string&) { socket_->receiveMessage(R"({"kapiId":"k"})"); });
  run(authenticator().authenticate("tok-3"));
  EXPECT_EQ(1, last().elements);
}

TEST_F(SocketAuthenticatorTest, FailsAfterTwentySecondsWithoutAcknowledgement) {
  socket_->connect();
  run(authenticator().authenticate("tok-4"));
  scheduler_->advanceBy(20s);
  expectTimeout(last());
}

}  // namespace
}  // namespace kel
