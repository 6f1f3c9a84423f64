#include "ServerClient/platform/InMemorySocket.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "support/RecordingSocketDelegate.h"

namespace kel::platform {
namespace {

using Strings = std::vector<std::string>;
using Delegate = test::RecordingSocketDelegate;

// One line per delegate call.
Strings callsOf(const Delegate& delegate) {
  Strings calls;
  for (const auto& e : delegate.events()) {
    switch (e.kind) {
      case Delegate::Kind::connected:
        calls.push_back("connect");
        break;
      case Delegate::Kind::disconnected:
        calls.push_back("disconnect " + name(e.code));
        break;
      case Delegate::Kind::error:
        calls.push_back("error " + e.text);
        break;
      case Delegate::Kind::message:
        calls.push_back("message " + e.text);
        break;
      case Delegate::Kind::data:
        calls.push_back("data " + std::to_string(e.text.size()));
        break;
    }
  }
  return calls;
}

class InMemorySocketTest : public testing::Test {
 protected:
  void make(InMemorySocket::Options options = {}) {
    socket = std::make_shared<InMemorySocket>(boost::urls::url("wss://kel.example/ws/kel"),
                                              Strings{"kel"}, options);
    socket->setDelegate(delegate);
  }
  void SetUp() override { make(); }
  void TearDown() override { EXPECT_EQ("", delegate->contractViolations()); }

  std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
  std::shared_ptr<InMemorySocket> socket;
};

TEST_F(InMemorySocketTest, RecordsWhatIsWrittenWhileOpenAndReportsEachDisconnectOnceWithItsCode) {
  socket->send("before");
  socket->connect();
  socket->connect();  // already open: counted, nothing else
  socket->send("AUTH t");
  socket->receiveMessage("3{}");
  socket->receiveData(std::string(3, '\0'));
  socket->disconnect(SocketCloseCode::goingBackground);
  EXPECT_FALSE(socket->isConnected());
  socket->disconnect(SocketCloseCode::normalClosure);  // nothing open: reported at once
  EXPECT_EQ((Strings{"connect", "message 3{}", "data 3", "disconnect goingBackground",
                     "disconnect normalClosure"}),
            callsOf(*delegate));
  EXPECT_EQ(2u, socket->connectCount());
  EXPECT_EQ(Strings{"AUTH t"}, socket->sentTexts());
  EXPECT_EQ(Strings{"before"}, socket->droppedTexts());
}

TEST_F(InMemorySocketTest, WaitsForTheTestToOpenOrFailTheConnection) {
  make({.openOnConnect = false});
  socket->connect();
  EXPECT_EQ(InMemorySocket::State::opening, socket->state());
  EXPECT_TRUE(delegate->events().empty());
  socket->receiveError(std::make_exception_ptr(std::runtime_error("refused")));
  socket->close(SocketCloseCode::abnormalClosure);  // the upgrade failed
  socket->connect();
  socket->open();
  socket->close(socketCloseCodeFrom(4321));  // the peer closes with a code of its own
  EXPECT_EQ((Strings{"error refused", "disconnect abnormalClosure", "connect",
                     "disconnect closeCode(4321)"}),
            callsOf(*delegate));
  EXPECT_THROW(socket->open(), std::logic_error);  // no connection attempt to open
}

TEST_F(InMemorySocketTest, ALingeringCloseReportsTheClientsCodeOnceWhateverEndsIt) {
  make({.closeOnDisconnect = false});
  socket->connect();
  socket->disconnect(SocketCloseCode::otherExpectedClosure);
  socket->disconnect(SocketCloseCode::normalClosure);  // adds nothing to the close under way
  EXPECT_EQ(InMemorySocket::State::closing, socket->state());
  EXPECT_THROW(socket->receiveMessage("late"), std::logic_error);
  socket->receiveError(std::make_exception_ptr(std::runtime_error("reset")));  // silenced
  socket->close(SocketCloseCode::abnormalClosure);  // network fails during the handshake
  socket->connect();
  socket->disconnect(SocketCloseCode::goingBackground);
  socket->completeDisconnect();
  EXPECT_EQ((Strings{"connect", "disconnect otherExpectedClosure", "connect",
                     "disconnect goingBackground"}),
            callsOf(*delegate));
}

TEST_F(InMemorySocketTest, CallsCausedInsideACallbackRunAfterItAndNeverNest) {
  // Like a stopped client that closes a socket as soon as it opens.
  delegate->setHook([this](const Delegate::Event& e) {
    if (e.kind != Delegate::Kind::connected) return;
    socket->receiveMessage("queued behind connect");
    socket->disconnect(SocketCloseCode::goingBackground);
    EXPECT_EQ(1u, delegate->events().size()) << "the report must wait for this callback";
  });
  socket->connect();
  // The message was about a connection the client had already closed: dropped.
  EXPECT_EQ((Strings{"connect", "disconnect goingBackground"}), callsOf(*delegate));
}

TEST_F(InMemorySocketTest, ConcurrentDriversDeliverEveryCallOneAtATimeInEachDriversOrder) {
  socket->connect();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 200; ++i) {
        socket->receiveMessage(std::to_string(t) + ":" + std::to_string(i));
        socket->send("frame");
      }
    });
  }
  for (auto& thread : threads) thread.join();
  const auto messages = delegate->messages();
  ASSERT_EQ(800u, messages.size());
  EXPECT_EQ(800u, socket->sentTexts().size());
  std::vector<int> next(4, 0);
  for (const auto& text : messages) {
    const int t = std::stoi(text.substr(0, text.find(':')));
    EXPECT_EQ(next[t]++, std::stoi(text.substr(text.find(':') + 1)));
  }
}

}  // namespace
}  // namespace kel::platform
