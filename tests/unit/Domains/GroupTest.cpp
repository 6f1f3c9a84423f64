#include <gtest/gtest.h>

#include "ServerClient/Group/Event/GroupEventHandler.h"
#include "ServerClient/Group/Service/KelCacheGroupService.h"
#include "support/LogCapture.h"
#include "support/OperationTable.h"
#include "support/SignInAnswer.h"

namespace kel {
namespace {

using namespace testing::tables;

json group(std::string id, json strategy = nullptr) {
  auto g = json::parse(R"({"chatId": "c", "name": "G", "participants": ["u1"]})");
  g["groupId"] = std::move(id);
  g["owner"] = testing::userRecord("u1");
  if (!strategy.is_null()) g["ringingStrategy"] = std::move(strategy);
  return g;
}

const json kSequential = {{"type", "sequential"}, {"properties", {{"delay", 10}, {"steps", 2}}}};

TEST(GroupRecords, RingingStrategiesDecodeTolerantlyAndEncodeOneLevelDeeper) {
  struct Row {
    json strategy;
    RingingStrategyDTO expected;
  };
  for (const auto& row : std::vector<Row>{
           {nullptr, SimultaneousRingingStrategyDTO{}},
           {{{"type", "simultaneous"}}, SimultaneousRingingStrategyDTO{}},
           {{{"type", "ringall"}}, SimultaneousRingingStrategyDTO{}},
           {{{"type", 7}}, SimultaneousRingingStrategyDTO{}},
           {{{"type", "sequential"}}, SimultaneousRingingStrategyDTO{}},
           {{{"type", "sequential"}, {"properties", {{"delay", 10}}}},
            SimultaneousRingingStrategyDTO{}},
           {kSequential, SequentialRingingStrategyDTO{10, 2}},
           {{{"type", "simultaneous-reduced"}, {"properties", {{"steps", 3}}}},
            SimultaneousReducedRingingStrategyDTO{3}},
       }) {
    SCOPED_TRACE(row.strategy.dump());
    EXPECT_EQ(row.expected, from<GroupDTO>(group("g", row.strategy).dump()).ringingStrategy);
  }
  auto withoutChat = group("g");
  withoutChat.erase("chatId");
  EXPECT_THROW(from<GroupDTO>(withoutChat.dump()), GenericError);
  EXPECT_THROW(from<GroupDTO>(R"({"groupId":"g"})"), GenericError);

  EXPECT_EQ(R"({"ringingStrategy":{"type":"simultaneous"}})",
            encodeRingingStrategy(SimultaneousRingingStrategyDTO{}).dump());
  EXPECT_EQ(
      (json{{"ringingStrategy", kSequential}}),
      json(GroupDTO{.ringingStrategy = SequentialRingingStrategyDTO{10, 2}})["ringingStrategy"]);
}

/// A group as the library hands it out again.
json decoded(const json& group) {
  return json(from<GroupDTO>(group.dump()));
}

TEST(GroupService, EachOperationWritesItsFrameAndMakesItsResult) {
  const auto ok = Reply::withBody(json::object());
  const auto timeout = Reply::failure(makeError(ConnectionError(ConnectionErrorType::timeout, -1)));
  const auto g1 = decoded(group("g1"));
  const auto member = [](auto& s) { return outcome(s.user("u1", "g1")); };
  const auto head = frame("HEAD", "/usersGroup/g1/participants/u1");
  const json u2 = {{"targetUserId", "u2"}};
  const std::vector<std::string> reordered{"u2", "u1"};
  testing::runOperationTable<KelGroupService>({
      {"create", [](auto& s) { return outcome(s.createGroup("G", std::nullopt)); },
       frame("POST", "/usersGroup", {{"name", "G"}}), Reply::withBody(group("g1")), g1},
      {"create with an id", [](auto& s) { return outcome(s.createGroup("G", "g1")); },
       frame("POST", "/usersGroup", {{"groupId", "g1"}, {"name", "G"}}), ok, kUndecodable},
      {"delete", [](auto& s) { return outcome(s.deleteGroup("g1")); },
       frame("DELETE", "/usersGroup/g1"), ok, "completed"},
      {"add", [](auto& s) { return outcome(s.add("u2", "g1")); },
       frame("POST", "/usersGroup/g1/participants", u2), ok, "completed"},
      {"remove", [](auto& s) { return outcome(s.remove("u2", "g1")); },
       frame("DELETE", "/usersGroup/g1/participants", u2), notFound(),
       json{{"error", "connection/notFound"}}},
      {"remove all", [](auto& s) { return outcome(s.removeAllUsers("g1")); },
       frame("DELETE", "/usersGroup/g1/participants"), Reply::withBody({1}), "completed"},
      {"leave all", [](auto& s) { return outcome(s.leaveAllGroups()); },
       frame("DELETE", "/usersGroups/participations"), ok, "completed"},
      {"leave", [](auto& s) { return outcome(s.leave("g1")); },
       frame("DELETE", "/usersGroup/g1//leave"), ok, "completed"},
      {"member", member, head, ok, true},
      {"not a member", member, head, notFound(), false},
      {"membership unknown", member, head, timeout, json{{"error", "connection/timeout"}}},
      {"groups", [](auto& s) { return outcome(s.groups(false)); },
       frame("GET", "/usersGroup?participating=false"), Reply::withBody({group("g1")}),
       json::array({g1})},
      {"group", [](auto& s) { return outcome(s.group("g1")); }, frame("GET", "/usersGroup/g1"),
       Reply::withBody(group("g1")), g1},
      {"ringing strategy",
       [](auto& s) {
         return outcome(s.changeRingingStrategy("g1", SequentialRingingStrategyDTO{10, 2}));
       },
       frame("PUT", "/usersGroup/g1", {{"ringingStrategy", kSequential}}), ok, "completed"},
      {"reorder", [&](auto& s) { return outcome(s.reorderParticipants("g1", reordered)); },
       frame("PUT", "/usersGroup/g1/participants", {{"participants", reordered}}), ok, "completed"},
  });
}

TEST(CacheGroupService, ReadsFromItselfWhenAskedAndKeepsAcceptedChangesOfCachedGroups) {
  testing::LogCapture log;
  auto client = std::make_shared<FakeSocketClient>();
  auto service = std::make_shared<KelCacheGroupService>(SocketClientSlot{client});

  // An empty cache asks the server even for fromCache, and keeps the answer.
  client->queueReply(Reply::withBody({group("g1"), group("g2")}));
  EXPECT_EQ(2u, outcome(service->groups(false, true)).size());
  EXPECT_EQ("/usersGroup?participating=false", client->lastRequest()["path"]);
  // Cached: every group, whatever participation asks, without a request.
  EXPECT_EQ(2u, outcome(service->groups(true, true)).size());
  EXPECT_EQ(decoded(group("g2")), outcome(service->group("g2", true)));
  EXPECT_EQ(1u, client->requests().size());
  EXPECT_TRUE(log.contains("Groups from cache: "));
  EXPECT_TRUE(log.contains("Group from cache: "));

  // Accepted changes reach cached groups; refused ones and uncached groups change nothing.
  client->queueReply(Reply::withBody(json::object()));
  outcome(service->reorderParticipants("g1", {"u2", "u1"}));
  client->queueReply(Reply::failure(makeError(ConnectionError::mapToOvError(500))));
  outcome(service->changeRingingStrategy("g1", SequentialRingingStrategyDTO{1, 1}));
  client->queueReply(Reply::withBody(json::object()));
  outcome(service->changeRingingStrategy("g2", SimultaneousReducedRingingStrategyDTO{2}));
  client->queueReply(Reply::withBody(json::object()));
  outcome(service->reorderParticipants("g9", {"u1"}));
  auto cached = service->cachedGroups();
  EXPECT_EQ((std::vector<std::string>{"u2", "u1"}), cached.at("g1").participants);
  EXPECT_EQ(RingingStrategyDTO(SimultaneousRingingStrategyDTO{}), cached.at("g1").ringingStrategy);
  EXPECT_EQ(RingingStrategyDTO(SimultaneousReducedRingingStrategyDTO{2}),
            cached.at("g2").ringingStrategy);
  EXPECT_EQ(2u, cached.size());
  EXPECT_EQ(1u, log.count("Group Participants cache updated: "));
  EXPECT_EQ(1u, log.count("Group RingingStrategy cache updated: "));

  // Deleting: an unknown id is only logged; a deleted group is asked for again.
  EXPECT_EQ("g9", service->deleteCache("g9"));
  EXPECT_TRUE(log.contains("Group cache NOT deleted: g9"));
  service->deleteCache("g2");
  client->queueReply(Reply::withBody(group("g2")));
  outcome(service->group("g2", true));
  EXPECT_EQ("/usersGroup/g2", client->lastRequest()["path"]);
}

}  // namespace
}  // namespace kel
