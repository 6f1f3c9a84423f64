#include "ServerClient/platform/InMemorySocket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ServerClient/Common/SDKError.h"

namespace kel::platform {
namespace {

// Records every delegate call as one line, and notices calls that nest or overlap.
class RecordingDelegate : public WebSocketConnectionDelegate {
 public:
  std::function<void()> onConnect;  // runs inside socketDidConnect

  void socketDidConnect() override {
    record("connect");
    if (onConnect) onConnect();
    leave();
  }
  void socketDidDisconnect(SocketCloseCode code) override {
    record("disconnect " + name(code));
    leave();
  }
  void socketDidReceiveError(std::exception_ptr error) override {
    record("error " + describeError(error));
    leave();
  }
  void socketDidReceiveMessage(std::string text) override {
    record("message " + text);
    leave();
  }
  void socketDidReceiveData(std::string bytes) override {
    record("data " + std::to_string(bytes.size()));
    leave();
  }

  std::vector<std::string> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  bool overlapped() const { return overlapped_; }

 private:
  void record(std::string call) {
    if (inside_.exchange(true)) overlapped_ = true;
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
  }
  void leave() { inside_ = false; }

  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
  std::atomic<bool> inside_{false};
  std::atomic<bool> overlapped_{false};
};

using Strings = std::vector<std::string>;

class InMemorySocketTest : public testing::Test {
 protected:
  void make(InMemorySocket::Options options = {}) {
    socket = std::make_shared<InMemorySocket>(boost::urls::url("wss://kel.example/ws/kel"),
                                              Strings{"kel"}, options);
    socket->setDelegate(delegate);
  }

  void SetUp() override { make(); }

  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<InMemorySocket> socket;
};

TEST_F(InMemorySocketTest, OpensAtOnceAndRecordsWhatIsWrittenWhileOpen) {
  socket->send("before");
  socket->sendPong();
  EXPECT_FALSE(socket->isConnected());
  socket->connect();
  EXPECT_TRUE(socket->isConnected());
  socket->connect();  // already open: counted, nothing else
  socket->send("AUTH t");
  socket->sendPong();
  EXPECT_EQ(Strings{"connect"}, delegate->calls());
  EXPECT_EQ(2u, socket->connectCount());
  EXPECT_EQ(1u, socket->connectRequests().size());
  EXPECT_EQ(Strings{"AUTH t"}, socket->sentTexts());
  EXPECT_EQ(Strings{"before"}, socket->droppedTexts());
  EXPECT_EQ(1u, socket->pongCount());
  EXPECT_EQ(Strings{"kel"}, socket->protocols());
  EXPECT_EQ("wss://kel.example/ws/kel", socket->url().buffer());
}

TEST_F(InMemorySocketTest, WaitsForTheTestToOpenOrFailTheConnection) {
  make({.openOnConnect = false});
  socket->connect();
  EXPECT_EQ(InMemorySocket::State::opening, socket->state());
  EXPECT_FALSE(socket->isConnected());
  EXPECT_TRUE(delegate->calls().empty());
  socket->receiveError(std::make_exception_ptr(std::runtime_error("refused")));
  socket->close(SocketCloseCode::abnormalClosure);  // the upgrade failed
  socket->connect();
  socket->open();
  socket->close(socketCloseCodeFrom(4321));  // the peer closes with a code of its own
  EXPECT_EQ((Strings{"error refused", "disconnect abnormalClosure", "connect",
                     "disconnect closeCode(4321)"}),
            delegate->calls());
  EXPECT_EQ(2u, socket->connectRequests().size());
  EXPECT_THROW(socket->open(), std::logic_error);  // no connection attempt to open
}

TEST_F(InMemorySocketTest, EveryDisconnectIsAnsweredByExactlyOneReportWithItsCode) {
  socket->connect();
  socket->receiveMessage("3{}");
  socket->receiveData(std::string(3, '\0'));
  socket->disconnect(SocketCloseCode::goingBackground);
  EXPECT_FALSE(socket->isConnected());
  socket->disconnect(SocketCloseCode::normalClosure);  // nothing open: reported at once
  EXPECT_EQ((Strings{"connect", "message 3{}", "data 3", "disconnect goingBackground",
                     "disconnect normalClosure"}),
            delegate->calls());
  EXPECT_EQ((std::vector{SocketCloseCode::goingBackground, SocketCloseCode::normalClosure}),
            socket->disconnectCodes());
}

TEST_F(InMemorySocketTest, ALingeringCloseReportsTheClientsCodeOnceWhateverEndsIt) {
  make({.closeOnDisconnect = false});
  socket->connect();
  socket->disconnect(SocketCloseCode::otherExpectedClosure);
  socket->disconnect(SocketCloseCode::normalClosure);  // adds nothing to the close under way
  EXPECT_EQ(InMemorySocket::State::closing, socket->state());
  EXPECT_FALSE(socket->isConnected());
  EXPECT_THROW(socket->receiveMessage("late"), std::logic_error);
  socket->receiveError(std::make_exception_ptr(std::runtime_error("reset")));  // silenced
  socket->close(SocketCloseCode::abnormalClosure);  // network fails during the handshake
  EXPECT_EQ((Strings{"connect", "disconnect otherExpectedClosure"}), delegate->calls());

  socket->connect();
  socket->disconnect(SocketCloseCode::goingBackground);
  socket->completeDisconnect();
  EXPECT_EQ("disconnect goingBackground", delegate->calls().back());
  EXPECT_EQ(4u, delegate->calls().size());
}

TEST_F(InMemorySocketTest, CallsCausedInsideACallbackRunAfterItAndNeverNest) {
  // Like a stopped client that closes a socket as soon as it opens.
  delegate->onConnect = [this] {
    socket->receiveMessage("queued behind connect");
    socket->disconnect(SocketCloseCode::goingBackground);
    EXPECT_EQ(1u, delegate->calls().size()) << "the report must wait for this callback";
  };
  socket->connect();
  // The message was about a connection the client had already closed: dropped.
  EXPECT_EQ((Strings{"connect", "disconnect goingBackground"}), delegate->calls());
  EXPECT_FALSE(delegate->overlapped());
}

TEST_F(InMemorySocketTest, SendHandlerCanAnswerLikeAServer) {
  socket->setSendHandler([this](const std::string& text) {
    if (text.starts_with("AUTH ")) socket->receiveMessage(R"({"kapiId":"k"})");
  });
  socket->connect();
  socket->send("AUTH token");
  socket->send("2{}");
  EXPECT_EQ((Strings{"connect", R"(message {"kapiId":"k"})"}), delegate->calls());
}

TEST_F(InMemorySocketTest, RequestInForceAtConnectIsRecorded) {
  UpgradeRequest request = socket->request();
  request.setHeaderField("Cookie", "s=1");
  socket->setRequest(request);
  socket->connect();
  request.setHeaderField("Cookie", "s=2");
  socket->setRequest(request);
  ASSERT_EQ(1u, socket->connectRequests().size());
  EXPECT_EQ("s=1", socket->connectRequests()[0].headerField("Cookie"));
  EXPECT_EQ("s=2", socket->request().headerField("Cookie"));
}

TEST_F(InMemorySocketTest, HoldsTheDelegateWeakly) {
  socket->connect();
  std::weak_ptr<RecordingDelegate> watch = delegate;
  delegate.reset();
  EXPECT_TRUE(watch.expired());
  socket->receiveMessage("nobody listens");  // dropped, no crash
  socket->disconnect(SocketCloseCode::normalClosure);
  EXPECT_EQ(InMemorySocket::State::closed, socket->state());
}

TEST_F(InMemorySocketTest, ConcurrentDriversDeliverEveryCallOneAtATime) {
  socket->connect();
  constexpr int kThreads = 4;
  constexpr int kMessages = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kMessages; ++i) {
        socket->receiveMessage(std::to_string(t) + ":" + std::to_string(i));
        socket->send("frame");
        (void)socket->isConnected();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  const auto calls = delegate->calls();
  EXPECT_EQ(1u + kThreads * kMessages, calls.size());
  EXPECT_FALSE(delegate->overlapped());
  EXPECT_EQ(static_cast<std::size_t>(kThreads * kMessages), socket->sentTexts().size());
  // Each driver's messages keep their order.
  std::vector<int> next(kThreads, 0);
  for (std::size_t i = 1; i < calls.size(); ++i) {
    const auto text = calls[i].substr(std::string("message ").size());
    const int t = std::stoi(text.substr(0, text.find(':')));
    EXPECT_EQ(next[t]++, std::stoi(text.substr(text.find(':') + 1)));
  }
}

}  // namespace
}  // namespace kel::platform
