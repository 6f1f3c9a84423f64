#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "emulator/Emulator.h"
#include "integration/emulator/TestWebSocketClient.h"

namespace kel::emulator::test {

/// An emulator with users alice and bob, one session each, started on a free loopback port.
class EmulatorTest : public ::testing::Test {
 protected:
  void SetUp() override { start(); }

  /// Restarts with other options (the emulator of SetUp is replaced).
  void start(Options options = {}) {
    emulator_.reset();
    emulator_ = std::make_unique<Emulator>(std::move(options));
    lastSocket_ = 0;
    emulator_->addUser("alice");
    emulator_->addUser("bob");
    aliceToken_ = emulator_->createSession("alice");
    bobToken_ = emulator_->createSession("bob");
    urls_ = emulator_->start();
  }

  Emulator& emulator() { return *emulator_; }

  /// A connected socket; lastSocket_ is its id. The emulator registers a socket just after its
  /// upgrade answer goes out, hence the wait.
  std::unique_ptr<TestWebSocketClient> connect(ClientOptions options = {},
                                               const std::string& url = {}) {
    const auto before = lastSocket_;
    auto client =
        TestWebSocketClient::connect(url.empty() ? urls_.socketURL : url, std::move(options));
    auto info = emulator_->waitForSocket([&](const SocketInfo& s) { return s.id > before; }, kWait);
    EXPECT_TRUE(info.has_value()) << "the emulator did not register the socket";
    if (info) lastSocket_ = info->id;
    return client;
  }

  /// A socket authenticated with `token`; fails the test when the emulator does not acknowledge.
  std::unique_ptr<TestWebSocketClient> connectAs(const std::string& token) {
    auto client = connect();
    auto ack = client->authenticate(token);
    EXPECT_NE(std::string::npos, ack.data.find("kapiId")) << ack.data;
    return client;
  }

  std::unique_ptr<Emulator> emulator_;
  Urls urls_;
  std::string aliceToken_;
  std::string bobToken_;
  SocketId lastSocket_ = 0;
};

}  // namespace kel::emulator::test
