#include <gtest/gtest.h>

#include "ServerClient/Presence/Event/PresencesEventHandler.h"
#include "ServerClient/Presence/Service/KelCachePresencesService.h"
#include "ServerClient/rx/TestScheduler.h"
#include "support/LogCapture.h"
#include "support/OperationTable.h"

namespace kel {
namespace {

using namespace testing::tables;

TEST(PresenceRecords, DecodeEveryKeyAsOptionalAndBuildTheUpdateBody) {
  const char* full =
      R"({"activity":"a","address":"kel-user:1","avatar":"x","avatarUrl":"u","displayName":"D",)"
      R"("domain":"d","mood":"m","note":"n","online":true,"role":"r","username":"ann"})";
  testing::runDecodingTable<PresenceDTO>(
      {{"{}", "{}"}, {full, full}, {R"({"online":"yes"})", std::nullopt}});

  struct Row {
    PresenceUpdateRequest request;
    const char* body;
  };
  for (const auto& row : std::vector<Row>{
           {{.address = "a", .online = true}, R"({"avatar":null})"},
           {{.address = "a", .online = true, .activity = "busy", .avatar = ""},
            R"({"online":true,"activity":"busy"})"},
           {{.address = "a", .avatar = "pic", .displayName = "D", .note = "n", .mood = "m"},
            R"({"displayName":"D","avatar":"pic","note":"n","mood":"m"})"},
       }) {
    EXPECT_EQ(row.body, row.request.toDictionary().dump());
  }
  EXPECT_EQ("kel-user:42", presencePathAddress("42"));
  EXPECT_EQ("ann@d", presencePathAddress("ann@d"));
  EXPECT_EQ("42", presenceCacheKey("kel-user:42"));
}

TEST(PresencesService, EachOperationWritesItsFrameAndDecodesItsAnswer) {
  const json ann = {{"address", "kel-user:1"}, {"online", true}};
  const auto presence = [](auto& s) { return outcome(s.presence("1")); };
  testing::runOperationTable<KelPresencesService>({
      {"subscribe one", [](auto& s) { return outcome(s.subscribe(std::string("kel-user:1"))); },
       frame("POST", "/presence", {{"address", "kel-user:1"}}), Reply::withBody(ann), ann},
      {"subscribe many",
       [](auto& s) {
         return outcome(s.subscribe(std::vector<std::string>{"kel-user:1", "2"}));
       },
       frame("POST", "/batch/presence", {"kel-user:1", "2"}), Reply::withBody({ann}),
       json::array({ann})},
      {"presence", presence,
       frame("GET", "/presence/kel-user:1?withoutAvatar=true", json::object()),
       Reply::withBody(ann), ann},
      {"presence with the avatar", [](auto& s) { return outcome(s.presence("ann@d", false)); },
       frame("GET", "/presence/ann@d?withoutAvatar=false", json::object()), Reply::withBody(ann),
       ann},
      {"update", [](auto& s) { return outcome(s.update({.address = "kel-user:1", .note = "n"})); },
       frame("PUT", "/presence/kel-user:1", {{"avatar", nullptr}, {"note", "n"}}),
       Reply::withBody(ann), ann},
      {"an answer that is not a record", presence,
       frame("GET", "/presence/kel-user:1?withoutAvatar=true", json::object()),
       Reply::withBody({1, 2}), kUndecodable},
  });
}

TEST(CachePresencesService, AnswersConfirmedSubscriptionsFromTheCacheAndFetchesOnlyTheRest) {
  testing::LogCapture log;
  auto client = std::make_shared<FakeSocketClient>();
  auto service = std::make_shared<KelCachePresencesService>(SocketClientSlot{client});
  const json ann = {{"address", "kel-user:1"}, {"username", "ann"}, {"domain", "d"}};
  const json bob = {{"address", "kel-user:2"}};

  client->queueReply(Reply::withBody(ann));
  EXPECT_EQ((json{{"fromCache", false}, {"presence", ann}}),
            outcome(service->subscribe(std::string("kel-user:1"))));
  EXPECT_EQ((std::map<std::string, bool>{{"kel-user:1", true}}), service->subscriptions());
  EXPECT_EQ(2u, service->cachedPresences().size());  // "1" and "ann@d"
  EXPECT_EQ((json{{"fromCache", true}, {"presence", ann}}),
            outcome(service->subscribe(std::string("kel-user:1"))));
  EXPECT_EQ(1u, client->requests().size());

  // A batch asks only for what is not subscribed and cached: fetched first, then cached.
  client->queueReply(Reply::withBody({bob}));
  EXPECT_EQ((json{{"fromCache", false}, {"presences", {bob, ann}}}),
            outcome(service->subscribe(std::vector<std::string>{"kel-user:1", "kel-user:2"})));
  EXPECT_EQ(json{"kel-user:2"}, client->lastRequest()["body"]);
  EXPECT_EQ((json{{"fromCache", true}, {"presences", {ann, bob}}}),
            outcome(service->subscribe(std::vector<std::string>{"kel-user:1", "kel-user:2"})));
  EXPECT_EQ(2u, client->requests().size());

  // presence(fromCache:) looks at the records only; a record without an address is not kept.
  EXPECT_EQ(ann, outcome(service->presence("ann@d", true)));
  service->updateCache(PresenceDTO{.note = "lost"});
  EXPECT_EQ(2u, client->requests().size());
  EXPECT_TRUE(log.contains("Presence from cache: "));
  EXPECT_TRUE(log.contains("Presence cache NOT updated: "));

  // A change of the user's own presence is cached as the server answers it.
  const json changed = {{"address", "kel-user:2"}, {"note", "back"}};
  client->queueReply(Reply::withBody(changed));
  outcome(service->update({.address = "kel-user:2", .note = "back"}));
  EXPECT_EQ(std::optional<std::string>("back"), service->cachedPresences().at("2").note);

  // The user waits for their own change for 10 s, not 20.
  auto scheduler = std::make_shared<rx::TestScheduler>();
  client->setTimeoutScheduler(scheduler);
  testing::StreamRecorder<PresenceDTO> waiting(service->update({.address = "kel-user:2"}));
  scheduler->advanceBy(std::chrono::seconds(9));
  EXPECT_FALSE(waiting.terminated());
  scheduler->advanceBy(std::chrono::seconds(1));
  EXPECT_EQ("connection/timeout", errorKind(waiting.error()));
}

}  // namespace
}  // namespace kel
