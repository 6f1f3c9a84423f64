// Fault injection as a client on the wire sees it.

#include <atomic>
#include <chrono>

#include "ServerClient/Socket/Model/ErrorCode.h"
#include "integration/emulator/EmulatorTestFixture.h"

namespace kel::emulator::test {
namespace {

TEST_F(EmulatorTest, DelayedAnswersLetLaterRequestsOvertakeThem) {
  auto client = connectAs(aliceToken_);
  emulator().faultNextRequests(1, Fault::delay(300ms));
  const auto started = std::chrono::steady_clock::now();
  const auto delayed = client->sendRequest("POST", "/echo", {{"n", 1}});
  const auto prompt = client->sendRequest("POST", "/echo", {{"n", 2}});
  EXPECT_EQ(prompt, client->nextObject().at("id"));
  auto late = client->nextObject();
  EXPECT_EQ(delayed, late.at("id"));
  EXPECT_EQ((json{{"n", 1}}), late.at("body"));
  EXPECT_GE(std::chrono::steady_clock::now() - started, 300ms);
}

TEST_F(EmulatorTest, FailureFaultsAnswerInsteadOfTheHandlerForTheirCountOnly) {
  std::atomic<int> calls = 0;
  emulator().resources().route("GET", "/presence", [&](const ResourceRequest&) {
    ++calls;
    return Reply::ok({{"from", "handler"}});
  });
  auto client = connectAs(aliceToken_);
  emulator().faultNextRequests(1, Fault::status(503, {{"from", "fault"}}));
  emulator().faultNextRequests(1, Fault::errorCode(42));

  EXPECT_EQ((json{{"from", "fault"}}), client->request("GET", "/presence").at("body"));
  auto coded = client->request("GET", "/presence");
  EXPECT_EQ(42, errorCode(coded)) << coded;
  EXPECT_EQ(0, calls);
  EXPECT_EQ(0u, emulator().armedFaults());
  EXPECT_EQ((json{{"from", "handler"}}), client->request("GET", "/presence").at("body"));
  EXPECT_EQ(1, calls);
}

TEST_F(EmulatorTest, FaultFiltersTakeOnlyTheirSocketMethodAndPath) {
  auto target = connectAs(aliceToken_);
  const auto targetId = lastSocket_;
  auto bystander = connectAs(bobToken_);
  emulator().faultAllRequests(Fault::status(500),
                              {.socket = targetId, .method = "post", .pathPrefix = "/echo"});

  for (int i = 0; i < 3; ++i) EXPECT_EQ(500, target->request("POST", "/echo?x").at("status"));
  EXPECT_EQ(200, target->request("GET", "/echo").at("status"));
  EXPECT_EQ(404, target->request("POST", "/other").at("status"));
  EXPECT_EQ(200, bystander->request("POST", "/echo").at("status"));
  emulator().clearFaults();
  EXPECT_EQ(200, target->request("POST", "/echo").at("status"));
}

TEST_F(EmulatorTest, AClosedListenerRefusesConnectionsForItsTimeOnly) {
  auto survivor = connectAs(aliceToken_);
  emulator().refuseConnections(200ms, RefusalMode::closeListener);
  EXPECT_FALSE(canConnect());
  ASSERT_TRUE(emulator().waitUntil([&] { return !emulator().isRefusingConnections(); }, kWait));
  EXPECT_TRUE(canConnect());
  EXPECT_EQ(200, survivor->request("GET", "/echo").at("status")) << "open sockets are unaffected";
}

}  // namespace
}  // namespace kel::emulator::test
