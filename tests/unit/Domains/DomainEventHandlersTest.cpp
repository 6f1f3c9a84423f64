#include <gtest/gtest.h>

#include "ServerClient/AddressBooks/Event/AddressBooksEventHandler.h"
#include "ServerClient/Alert/Event/AlertsEventHandler.h"
#include "ServerClient/ConferenceLog/Event/ConferenceLogEventHandler.h"
#include "ServerClient/Group/Event/GroupEventHandler.h"
#include "ServerClient/Meeting/Event/MeetingsEventHandler.h"
#include "ServerClient/MissedCalls/Event/MissedCallsEventHandler.h"
#include "ServerClient/Presence/Event/PresencesEventHandler.h"
#include "ServerClient/XMPP/Event/IndividualChatListEventHandler.h"
#include "ServerClient/rx/TestScheduler.h"
#include "support/SignInAnswer.h"

namespace kel {
namespace {

using nlohmann::json;

// The parameter: whether the channel is handed each event shared, as the socket client does, so
// that the handlers decode the parsed body, or as an object, so that they parse the text again.
class DomainEventHandlers : public ::testing::TestWithParam<bool> {};

TEST_P(DomainEventHandlers, EachStreamKeepsItsDomainAndMethodAndEndsOnlyForAnUndecodableRecord) {
  auto scheduler = std::make_shared<rx::TestScheduler>();
  auto channel = std::make_shared<KelEventHandler>();
  AddressBooksEventHandler books(channel, scheduler);
  PresencesEventHandler presence(channel, scheduler);
  GroupEventHandler groups(channel, scheduler);
  MeetingsEventHandler meetings(channel, scheduler);
  ConferenceLogEventHandler conferences(channel, scheduler);
  MissedCallsEventHandler missedCalls(channel, scheduler);
  AlertsEventHandler alerts(channel, scheduler);
  IndividualChatListEventHandler chats(channel, scheduler);
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
  auto newMeeting = observe(meetings.newMeeting());
  auto meetingUpdated = observe(meetings.meetingUpdated());
  auto meetingDeleted = observe(meetings.meetingDeleted());
  auto newConference = observe(conferences.newConferenceEntry());
  auto newMissedCalls = observe(missedCalls.newMissedCalls());
  auto newAlert = observe(alerts.newAlert());
  auto updatedAlert = observe(alerts.updatedAlert());
  auto newChat = observe(chats.newIndividualChat());
  auto deletedChat = observe(chats.deleteIndividualChat());
  scheduler->start();

  const json book = {{"addressBookId", "b1"}, {"addressBookType", "contacts"}};
  auto group =
      json::parse(R"({"groupId": "g1", "chatId": "c", "name": "G", "participants": ["u"]})");
  group["owner"] = testing::userRecord("u");
  json meeting = json::parse(R"({"id":"m1","name":"M","participants":[],"validSince":1,
      "validUntil":2,"url":"u","isPasswordProtected":true,"record":{"type":"all"}})");
  meeting["user"] = group["owner"];
  const json conference = json::parse(R"({"id":"c1","roomId":"r","state":"active","createdAt":1,
      "finishedAt":2,"invites":[],"participants":[],"transfers":[]})");
  const auto alert = [](const char* id) {
    return json{{"alertId", id},  {"from", "u"},    {"title", "t"},
                {"payload", "p"}, {"createdAt", 1}, {"cancelled", false}};
  };
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
           {"/meetings", "POST", meeting},
           {"/meetings/m1", "PUT", meeting},
           {"/meetings/m1", "DELETE", {{"id", "m1"}}},  // not a meeting, not read
           {"/meetings", "GET", meeting},
           {"/meetings/m1", "PUT", group},  // not a meeting: ends meetingUpdated
           {"/conferences", "PUT", conference},
           {"/conferences/c1", "POST", conference},
           {"/missedCalls/u1", "POST", {{"items", {{{"id", "c1"}}}}}},
           {"/missedCalls/u1", "PUT", {{"items", {{{"id", "c2"}}}}}},
           {"/alerts", "POST", alert("a1")},
           {"/alerts/a2", "DELETE", alert("a2")},
           {"/alerts", "PUT", alert("a3")},
           {"/alerts", "GET", alert("a4")},
           {"/alerts", "DELETE", {{"alertId", "a5"}}},  // not a full alert: ends updatedAlert
           {"/xmpp/individualChatList/ann@d", "PUT", {{"jid", "not read"}}},
           {"/xmpp/individualChatList/bob@d", "POST", json::object()},
           {"/xmpp/individualChatList", "DELETE", json::object()},
       }) {
    json event = {{"path", path}, {"method", method}, {"body", body}};
    if (GetParam()) {
      channel->handleShared(std::make_shared<const json>(std::move(event)));
    } else {
      channel->handle(event);
    }
  }
  EXPECT_TRUE(created->events().empty()) << "delivered on the scheduler, not before it runs";
  scheduler->start();

  EXPECT_EQ(std::optional<std::string>("b1"), created->values().at(0).id);
  ASSERT_EQ(2u, updated->events().size());
  ASSERT_TRUE(updated->events()[1].value.isError());
  const auto error = updated->events()[1].value.error();
  const auto* failure = errorAs<GenericError>(error);
  ASSERT_NE(nullptr, failure);
  EXPECT_EQ(GenericErrorType::Kind::decoding, failure->type().kind());
  EXPECT_EQ(1u, deleted->values().size());
  ASSERT_EQ(1u, presenceUpdated->values().size());
  EXPECT_EQ(std::optional<std::string>("PUT"), presenceUpdated->values()[0].note);
  EXPECT_EQ("g1", newGroup->values().at(0).groupId);
  EXPECT_TRUE(newGroup->events().back().value.isError());
  EXPECT_EQ(std::vector<std::string>{"g1"}, groupDeleted->values());
  EXPECT_EQ(std::vector<std::string>{"g5"}, participantRemoved->values());
  EXPECT_EQ("m1", newMeeting->values().at(0).id);
  ASSERT_EQ(2u, meetingUpdated->events().size());
  EXPECT_TRUE(meetingUpdated->events()[1].value.isError());
  EXPECT_EQ(1u, meetingDeleted->values().size());
  ASSERT_EQ(1u, newConference->values().size());
  EXPECT_EQ("c1", newConference->values()[0].id);
  ASSERT_EQ(1u, newMissedCalls->values().size());
  EXPECT_EQ((std::vector<IndividualChatListSocketDTO>{{"ann@d"}}), newChat->values());
  EXPECT_EQ((std::vector<IndividualChatListSocketDTO>{{std::nullopt}}), deletedChat->values());
  ASSERT_EQ(1u, newAlert->values().size());
  EXPECT_EQ("a1", newAlert->values()[0].alertId);
  ASSERT_EQ(3u, updatedAlert->events().size());
  EXPECT_EQ("a2", updatedAlert->values().at(0).alertId);
  EXPECT_EQ("a3", updatedAlert->values().at(1).alertId);
  EXPECT_TRUE(updatedAlert->events()[2].value.isError());
  EXPECT_EQ((MissedCallsSocketDTO{std::vector<MissedCallItemDTO>{{"c2"}}}),
            newMissedCalls->values()[0]);

  // The channel's end ends every stream still open.
  channel->stopListeningForEvents();
  scheduler->start();
  EXPECT_TRUE(deleted->events().back().value.isCompleted());
  EXPECT_TRUE(deletedChat->events().back().value.isCompleted());
}

INSTANTIATE_TEST_SUITE_P(ObjectOrShared, DomainEventHandlers, ::testing::Bool());

}  // namespace
}  // namespace kel
