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

TEST_F(KelEventHandlerTest, PublishesDomainMethodParamAndPrettyBody) {
  handler_.handle(
      json{{"path", "/usersGroup/participant/42"}, {"method", "put"}, {"body", {{"name", "Ada"}}}});
  handler_.handle(json{{"path", "/nowhere/9"}, {"method", "DELETE"}, {"body", json::array()}});
  ASSERT_EQ(2u, events_.size());
  EXPECT_EQ(DomainEvent::participantInGroup, events_[0].domainEvent);
  EXPECT_EQ("PUT", events_[0].method);
  EXPECT_EQ("42", events_[0].param);
  EXPECT_EQ("{\n  \"name\": \"Ada\"\n}", events_[0].data);
  EXPECT_EQ(DomainEvent::unkwown, events_[1].domainEvent);
  EXPECT_EQ("9", events_[1].param);
  EXPECT_EQ("[]", events_[1].data);
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
