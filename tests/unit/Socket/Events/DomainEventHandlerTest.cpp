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
      : DomainEventHandler(std::move(channel), std::move(scheduler)) {}
  const rx::Observable<Presence> presenceUpdated = records<Presence>(DomainEvent::presence, "PUT");
  const rx::Observable<std::string> presenceDeleted = params(DomainEvent::presence, "DELETE");
};

TEST(DomainEventHandler, KeepsItsDomainAndMethodDeliversOnItsSchedulerAndEndsWithTheChannel) {
  auto scheduler = std::make_shared<rx::TestScheduler>();
  auto channel = std::make_shared<KelEventHandler>();
  PresenceEvents handler(channel, scheduler);
  auto push = [&](const std::string& path, const std::string& method, json body) {
    channel->handle(json{{"path", path}, {"method", method}, {"body", std::move(body)}});
  };
  auto updated = scheduler->createObserver<Presence>();
  auto undecodable = scheduler->createObserver<Presence>();
  auto deleted = scheduler->createObserver<std::string>();
  handler.presenceUpdated.subscribe(updated);
  handler.presenceDeleted.subscribe(deleted);
  scheduler->start();  // the subscriptions themselves run on the scheduler

  push("/presence", "PUT", {{"id", "u1"}, {"status", "busy"}});
  push("/presence", "post", {{"id", "u2"}, {"status", "away"}});
  push("/alerts", "PUT", {{"id", "u3"}, {"status", "away"}});
  push("/presence/u4", "delete", json::object());
  push("/presence", "DELETE", json::object());  // no identifier: nothing to report
  EXPECT_TRUE(updated->events().empty());       // not before the scheduler runs
  scheduler->start();
  EXPECT_EQ(std::vector{(Presence{"u1", "busy"})}, updated->values());
  EXPECT_EQ(std::vector<std::string>{"u4"}, deleted->values());

  // An undecodable record ends that subscriber's stream only; the channel's end reaches all.
  handler.presenceUpdated.subscribe(undecodable);
  scheduler->start();
  push("/presence", "PUT", {{"id", "u1"}});
  push("/presence/u9", "DELETE", json::object());
  channel->stopListeningForEvents();
  scheduler->start();
  ASSERT_EQ(1u, undecodable->events().size());
  ASSERT_TRUE(undecodable->events()[0].value.isError());
  const auto failure = undecodable->events()[0].value.error();
  const auto* error = errorAs<GenericError>(failure);
  ASSERT_NE(nullptr, error);
  EXPECT_EQ(GenericErrorType::Kind::decoding, error->type().kind());
  EXPECT_EQ((std::vector<std::string>{"u4", "u9"}), deleted->values());
  EXPECT_TRUE(deleted->events().back().value.isCompleted());
}

}  // namespace
}  // namespace kel
