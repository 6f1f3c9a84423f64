#include "ServerClient/Socket/Events/KelEventHandler.h"

#include <gtest/gtest.h>

#include "support/LogCapture.h"

namespace kel {
namespace {

using nlohmann::json;

class KelEventHandlerTest : public ::testing::Test {
 protected:
  KelEventHandlerTest() {
    handler_.eventChannel().subscribe([this](const KelEvent& e) { events_.push_back(e); }, {},
                                      [this] { completed_ = true; });
  }

  KelEventHandler handler_;
  std::vector<KelEvent> events_;
  bool completed_ = false;
};

TEST_F(KelEventHandlerTest, PublishesDomainMethodParamAndPrettyBody) {
  handler_.handle(
      json{{"path", "/usersGroup/participant/42"}, {"method", "put"}, {"body", {{"name", "Ada"}}}});
  ASSERT_EQ(1u, events_.size());
  const auto& event = events_[0];
  EXPECT_EQ(DomainEvent::participantInGroup, event.domainEvent);
  EXPECT_EQ("PUT", event.method);
  EXPECT_EQ("42", event.param);
  EXPECT_EQ(json({{"name", "Ada"}}), json::parse(event.data));
  EXPECT_NE(std::string::npos, event.data.find('\n'));  // pretty-printed

  handler_.handle(json{{"path", "/nowhere/9"}, {"method", "DELETE"}, {"body", json::array()}});
  ASSERT_EQ(2u, events_.size());
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
  for (const json& body : {json("text"), json(1), json(true), json(nullptr)}) {
    handler_.handle(json{{"path", "/presence"}, {"method", "PUT"}, {"body", body}});
  }
  handler_.handle(json{{"path", "/presence"}, {"method", "PUT"}, {"body", {"\xff"}}});
  EXPECT_EQ(5u, log.count("]: Could not decode json "));
  EXPECT_TRUE(events_.empty());
}

TEST_F(KelEventHandlerTest, StoppingCompletesTheChannelForGood) {
  handler_.stopListeningForEvents();
  EXPECT_TRUE(completed_);
  handler_.handle(json{{"path", "/presence"}, {"method", "PUT"}, {"body", json::object()}});
  EXPECT_TRUE(events_.empty());

  bool lateCompleted = false;
  int lateValues = 0;
  handler_.eventChannel().subscribe([&](const KelEvent&) { ++lateValues; }, {},
                                    [&] { lateCompleted = true; });
  EXPECT_TRUE(lateCompleted);
  EXPECT_EQ(0, lateValues);
}

}  // namespace
}  // namespace kel
