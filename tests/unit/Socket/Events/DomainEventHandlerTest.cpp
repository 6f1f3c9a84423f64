#include "ServerClient/Socket/Events/DomainEventHandler.h"

#include <gtest/gtest.h>

#include "ServerClient/rx/TestScheduler.h"

namespace kel {
namespace {

using nlohmann::json;

struct Presence {
  std::string id;
  std::string status;
  bool operator==(const Presence&) const = default;
};
void from_json(const json& j, Presence& p) {
  j.at("id").get_to(p.id);
  j.at("status").get_to(p.status);
}

// A domain handler as every domain writes one: streams built once, at construction.
class PresenceEvents final : public DomainEventHandler {
 public:
  PresenceEvents(std::shared_ptr<KelEventHandler> channel, rx::SchedulerPtr scheduler)
      : DomainEventHandler(std::move(channel), std::move(scheduler)),
        presenceUpdated(records<Presence>(DomainEvent::presence, "PUT")),
        presenceDeleted(params(DomainEvent::presence, "DELETE")) {}

  const rx::Observable<Presence> presenceUpdated;
  const rx::Observable<std::string> presenceDeleted;
};

class DomainEventHandlerTest : public ::testing::Test {
 protected:
  void push(const std::string& path, const std::string& method, json body) {
    channel_->handle(json{{"path", path}, {"method", method}, {"body", std::move(body)}});
  }

  std::shared_ptr<rx::TestScheduler> scheduler_ = std::make_shared<rx::TestScheduler>();
  std::shared_ptr<KelEventHandler> channel_ = std::make_shared<KelEventHandler>();
  PresenceEvents handler_{channel_, scheduler_};
};

TEST_F(DomainEventHandlerTest, KeepsItsDomainAndMethodAndDeliversOnItsScheduler) {
  auto updated = scheduler_->createObserver<Presence>();
  auto deleted = scheduler_->createObserver<std::string>();
  handler_.presenceUpdated.subscribe(updated);
  handler_.presenceDeleted.subscribe(deleted);
  scheduler_->start();  // the subscriptions themselves run on the scheduler

  push("/presence", "PUT", {{"id", "u1"}, {"status", "busy"}});
  push("/presence", "post", {{"id", "u2"}, {"status", "away"}});
  push("/alerts", "PUT", {{"id", "u3"}, {"status", "away"}});
  push("/presence/u4", "delete", json::object());
  push("/presence", "DELETE", json::object());  // no identifier: nothing to report
  EXPECT_TRUE(updated->events().empty());       // not before the scheduler runs

  scheduler_->start();
  EXPECT_EQ(std::vector{(Presence{"u1", "busy"})}, updated->values());
  EXPECT_EQ(std::vector<std::string>{"u4"}, deleted->values());
}

TEST_F(DomainEventHandlerTest, UndecodableRecordEndsThatSubscribersStreamAndCompletionEndsAll) {
  auto first = scheduler_->createObserver<Presence>();
  handler_.presenceUpdated.subscribe(first);
  scheduler_->start();
  push("/presence", "PUT", {{"id", "u1"}});
  scheduler_->start();
  ASSERT_EQ(1u, first->events().size());
  ASSERT_TRUE(first->events()[0].value.isError());
  try {
    std::rethrow_exception(first->events()[0].value.error());
  } catch (const GenericError& e) {
    EXPECT_EQ(GenericErrorType::Kind::decoding, e.type().kind());
  }

  // A later subscriber still gets events, and the channel's end reaches it.
  auto second = scheduler_->createObserver<std::string>();
  handler_.presenceDeleted.subscribe(second);
  scheduler_->start();
  push("/presence/u9", "DELETE", json::object());
  channel_->stopListeningForEvents();
  scheduler_->start();
  ASSERT_EQ(2u, second->events().size());
  EXPECT_EQ("u9", second->events()[0].value.value());
  EXPECT_TRUE(second->events()[1].value.isCompleted());
}

}  // namespace
}  // namespace kel
