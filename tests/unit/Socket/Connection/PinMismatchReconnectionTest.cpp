// A socket refused for its certificate pin: the connection attempt fails at once with the pin
// error, and the reconnection gives up instead of trying the same key every period.

#include <gtest/gtest.h>

#include "ServerClient/Common/SDKError.h"
#include "ServerClient/Socket/Events/KelSocketEventHandler.h"
#include "ServerClient/Socket/SocketReconnector.h"
#include "ServerClient/platform/InMemorySocket.h"
#include "ServerClient/platform/TlsClientContext.h"
#include "ServerClient/rx/TestScheduler.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using platform::SocketCloseCode;

TEST(PinMismatchReconnectionTest, ARefusedKeyEndsTheWaitAndTheReconnection) {
  auto scheduler = std::make_shared<rx::TestScheduler>();
  auto socket = std::make_shared<platform::InMemorySocket>(boost::urls::url("wss://kel.test/ws"));
  socket->setOptions({.openOnConnect = false});
  auto handler = KelSocketEventHandler::create(socket);
  auto connector =
      std::make_shared<SocketConnector>(socket, handler, kConnectionTimeout,
                                        SocketConnector::Options{.connectionScheduler = scheduler});
  auto reconnector = SocketReconnector::create(
      socket, connector,
      std::make_shared<SocketAuthenticator>(
          socket, handler, kConnectionTimeout,
          SocketAuthenticator::Options{.authenticationScheduler = scheduler}),
      3s, SocketReconnector::Options{.reconnectionScheduler = scheduler});
  const auto refuse = [&] {
    socket->receiveError(std::make_exception_ptr(platform::CertificatePinMismatch(
        "TLS handshake with wss://kel.test/ws failed: certificate pin mismatch")));
    socket->close(SocketCloseCode::tlsHandshakeFailure);
  };

  // Another failure leaves the connection wait to its time-out; the pin ends it at once.
  std::exception_ptr failure;
  const auto record = [&](std::exception_ptr e) { failure = e; };
  auto lost = connector->connect().subscribe([](const rx::Unit&) {}, record);
  socket->close(SocketCloseCode::abnormalClosure);
  EXPECT_FALSE(failure);
  lost.dispose();
  auto refused = connector->connect().subscribe([](const rx::Unit&) {}, record);
  refuse();
  ASSERT_TRUE(failure);
  EXPECT_TRUE(isCertificatePinMismatch(failure)) << describeError(failure);
  EXPECT_NE(nullptr, errorAs<GenericError>(failure));

  reconnector->launchReconnection("tok");
  scheduler->advanceBy(3s);
  ASSERT_EQ(3u, socket->connectCount());
  refuse();
  EXPECT_FALSE(reconnector->isReconnecting());
  scheduler->advanceBy(60s);
  EXPECT_EQ(3u, socket->connectCount()) << "no attempt after the refusal";
  // A later loss may try again (the server may have been fixed); it meets the same refusal.
  reconnector->launchReconnection("tok");
  EXPECT_TRUE(reconnector->isReconnecting());
}

}  // namespace
}  // namespace kel
