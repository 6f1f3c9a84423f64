#include "ServerClient/platform/InMemorySocket.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/RecordingSocketDelegate.h"

namespace kel::platform {
namespace {

using Strings = std::vector<std::string>;
using Delegate = test::RecordingSocketDelegate;

// One line per delegate call.
Strings callsOf(const Delegate& delegate) {
  static const char* const kVerbs[] = {"connect", "disconnect ", "error ", "message ", "data "};
  Strings calls;
  for (const auto& e : delegate.events()) {
    const auto detail = e.kind == Delegate::Kind::disconnected ? name(e.code)
                        : e.kind == Delegate::Kind::data       ? std::to_string(e.text.size())
                                                               : e.text;
    calls.push_back(kVerbs[static_cast<int>(e.kind)] + detail);
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

}  // namespace
}  // namespace kel::platform
