#include <gtest/gtest.h>

#include "ServerClient/AddressBooks/Event/AddressBooksEventHandler.h"
#include "ServerClient/Group/Event/GroupEventHandler.h"
#include "ServerClient/Presence/Event/PresencesEventHandler.h"
#include "ServerClient/rx/TestScheduler.h"
#include "support/SignInAnswer.h"

namespace kel {
namespace {

using nlohmann::json;

TEST(DomainEventHandlers, EachStreamKeepsItsDomainAndMethodAndEndsOnlyForAnUndecodableRecord) {
  auto scheduler = std::make_shared<rx::TestScheduler>();
  auto channel = std::make_shared<KelEventHandler>();
  AddressBooksEventHandler books(channel, scheduler);
  PresencesEventHandler presence(channel, scheduler);
  GroupEventHandler groups(channel, scheduler);
  const auto observe = [&](const auto& stream) {
    auto observer = scheduler->createObserver<typename std::decay_t<decltype(stream)>::Element>();
    stream.subscribe(observer);
    return observer;
  };
  auto created = observe(books.newContact());
  auto updated = observe(books.contactUpdated());
  auto deleted = observe(books.contactDeleted());
  auto presenceUpdated = observe(presence.presenceUpdated());
  auto newGroup = observe(groups.newGroup());
  auto groupDeleted = observe(groups.groupDeleted());
  auto participantRemoved = observe(groups.groupDidRemoveParticipant());
  scheduler->start();

  const json book = {{"addressBookId", "b1"}, {"addressBookType", "contacts"}};
  const json group = {{"groupId", "g1"},
                      {"chatId", "c"},
                      {"name", "G"},
                      {"participants", {"u"}},
                      {"owner", testing::userRecord("u")}};
  for (const auto& [path, method, body] : std::vector<std::tuple<const char*, const char*, json>>{
           {"/addressbooks/b1", "POST", book},
           {"/addressbooks/b1", "put", book},
           {"/addressbooks", "PUT", {{"addressBookType", 1}}},  // ends contactUpdated only
           {"/addressbooks", "PUT", book},
           {"/addressbooks", "DELETE", book},
           {"/presence/kel-user:1", "PUT", {{"note", "PUT"}}},
           {"/presence/kel-user:1", "POST", {{"note", "POST"}}},
           {"/usersGroup", "POST", group},
           {"/usersGroup", "POST", book},  // not a group: ends newGroup
           {"/usersGroup/g1", "DELETE", {{"groupId", "g1"}, {"name", "G"}}},
           {"/usersGroup/g2", "DELETE", {{"groupId", "g2"}, {"count", 1}}},  // not all texts
           {"/usersGroup/g3", "DELETE", {{"name", "no id"}}},
           {"/usersGroup/participant", "DELETE", {{"groupId", "g5"}}},
           {"/usersGroup/participant", "PUT", {{"groupId", "g6"}}},
       }) {
    channel->handle({{"path", path}, {"method", method}, {"body", body}});
  }
  scheduler->start();

  EXPECT_EQ(std::optional<std::string>("b1"), created->values().at(0).id);
  ASSERT_EQ(2u, updated->events().size());
  EXPECT_TRUE(updated->events()[1].value.isError());
  EXPECT_EQ(1u, deleted->values().size());
  ASSERT_EQ(1u, presenceUpdated->values().size());
  EXPECT_EQ(std::optional<std::string>("PUT"), presenceUpdated->values()[0].note);
  EXPECT_EQ("g1", newGroup->values().at(0).groupId);
  EXPECT_TRUE(newGroup->events().back().value.isError());
  EXPECT_EQ(std::vector<std::string>{"g1"}, groupDeleted->values());
  EXPECT_EQ(std::vector<std::string>{"g5"}, participantRemoved->values());
}

}  // namespace
}  // namespace kel
