#include "ServerClient/Socket/Events/KelEventHandler.h"

#include <gtest/gtest.h>

#include "support/LogCapture.h"

namespace kel {
namespace {

using nlohmann::json;

class KelEventHandlerTest : public ::testing::Test {
 protected:
  KelEventHandlerTest() {
    handler_.eventChannel().subscribe([this](const KelEvent& e) { events_.push_back(e); });
  }

  KelEventHandler handler_;
  std::vector<KelEvent> events_;
};

// The domain and the parameter come from the path (DomainEventTest, DomainEventHandlersTest).
TEST_F(KelEventHandlerTest, PublishesTheUpperCasedMethodAndThePrettyBody) {
  handler_.handle(
      json{{"path", "/usersGroup/participant/42"}, {"method", "put"}, {"body", {{"name", "Ada"}}}});
  ASSERT_EQ(1u, events_.size());
  EXPECT_EQ("PUT", events_[0].method);
  EXPECT_EQ("{\n  \"name\": \"Ada\"\n}", events_[0].data);
}

TEST_F(KelEventHandlerTest, DropsAndLogsMalformedEnvelopesAndScalarBodies) {
  testing::LogCapture log;
  for (const json& bad :
       {json{{"method", "PUT"}, {"body", {}}}, json{{"path", 3}, {"method", "PUT"}, {"body", {}}},
        json{{"path", "/presence"}, {"method", nullptr}, {"body", {}}},
        json{{"path", "/presence"}, {"method", "PUT"}}, json::array(), json("text")}) {
    handler_.handle(bad);
  }
  EXPECT_EQ(6u, log.count("]: Invalid event received: "));
  for (const json& body : {json("text"), json(1), json(nullptr), json{"\xff"}}) {
    handler_.handle(json{{"path", "/presence"}, {"method", "PUT"}, {"body", body}});
  }
  EXPECT_EQ(4u, log.count("]: Could not decode json "));
  EXPECT_TRUE(events_.empty());
}

TEST_F(KelEventHandlerTest, StoppingCompletesTheChannelForGood) {
  handler_.stopListeningForEvents();
  handler_.handle(json{{"path", "/presence"}, {"method", "PUT"}, {"body", json::object()}});
  EXPECT_TRUE(events_.empty());
  bool lateCompleted = false;
  handler_.eventChannel().subscribe([&](const KelEvent&) { ADD_FAILURE(); }, {},
                                    [&] { lateCompleted = true; });
  EXPECT_TRUE(lateCompleted);
}

}  // namespace
}  // namespace kel
