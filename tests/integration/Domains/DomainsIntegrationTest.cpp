// Each domain through the facade, the real WebSocket and the emulator, ending with an event that
// reaches another session's handler. KelCliTest runs every operation and reads its answer; these
// follow what the operations make the domains' event handlers deliver.

#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include <boost/url/parse.hpp>

#include "ServerClient/AddressBooks/Event/AddressBooksEventHandler.h"
#include "ServerClient/AddressBooks/Service/AddressBooksService.h"
#include "ServerClient/Alert/Event/AlertsEventHandler.h"
#include "ServerClient/Alert/Service/AlertsService.h"
#include "ServerClient/Client/KelServer.h"
#include "ServerClient/ConferenceLog/Event/ConferenceLogEventHandler.h"
#include "ServerClient/ConferenceLog/Service/ConferenceLogService.h"
#include "ServerClient/Contact/Service/UserContactsService.h"
#include "ServerClient/Group/Event/GroupEventHandler.h"
#include "ServerClient/Group/Service/GroupService.h"
#include "ServerClient/Meeting/Event/MeetingsEventHandler.h"
#include "ServerClient/Meeting/Service/MeetingsService.h"
#include "ServerClient/MissedCalls/Event/MissedCallsEventHandler.h"
#include "ServerClient/MissedCalls/Service/MissedCallsService.h"
#include "ServerClient/Presence/Event/PresencesEventHandler.h"
#include "ServerClient/Presence/Service/PresencesService.h"
#include "ServerClient/XMPP/Event/IndividualChatListEventHandler.h"
#include "ServerClient/XMPP/Service/XMPPService.h"
#include "ServerClient/platform/InMemoryKeychain.h"
#include "ServerClient/rx/Schedulers.h"
#include "emulator/Emulator.h"
#include "support/StreamRecorder.h"

namespace kel {
namespace {

using nlohmann::json;
using testing::await;
using testing::StreamRecorder;

/// The handlers' streams subscribe on the main queue, so an event that the server sends right
/// after the recorders were made could arrive before them. Once the serial main queue has run a
/// task scheduled after theirs, they listen.
void untilListening() {
  auto ran = std::make_shared<std::promise<void>>();
  auto future = ran->get_future();
  rx::MainScheduler::instance()->schedule([ran] { ran->set_value(); });
  ASSERT_EQ(std::future_status::ready, future.wait_for(std::chrono::seconds(20)));
}

class DomainsIntegrationTest : public ::testing::Test {
 protected:
  DomainsIntegrationTest() {
    for (const char* user : {"ann", "bob"}) {
      auto account = emulator::defaultAccount(user, std::string(user) + "-outside");
      account.capabilities = {{"domain", {"presence", "call-history"}}, {"user", json::array()}};
      emulator_.addAccount(std::move(account));
    }
    urls_ = emulator_.start();
  }

  std::shared_ptr<KelServer> signIn(const std::string& user) {
    KelServer::Options options;
    options.keychain = std::make_shared<platform::InMemoryKeychain>();
    options.userDefaults = std::make_shared<platform::InMemoryUserDefaults>();
    auto server = KelServer::create(boost::urls::parse_absolute_uri(urls_.kelURL).value(),
                                    boost::urls::parse_absolute_uri(urls_.socketURL).value(),
                                    "1.0.0", "DOMAINS", options);
    // Presence and the call history need the capabilities that the sign-in brings.
    EXPECT_THROW(server->presencesService(), GenericError);
    EXPECT_THROW(server->conferenceLogService(), GenericError);
    await(server->connect(user + "-outside"));
    return server;
  }

  emulator::Emulator emulator_;
  emulator::Urls urls_;
};

TEST_F(DomainsIntegrationTest, ContactsReachTheAddressBookAndTheOwnersOtherSessions) {
  auto ann = signIn("ann");
  auto annElsewhere = signIn("ann");
  const auto& events = *annElsewhere->addressBooksEventHandler();
  StreamRecorder created(events.newContact());
  StreamRecorder updated(events.contactUpdated());
  StreamRecorder deleted(events.contactDeleted());
  untilListening();

  Contact contact{.id = "c1", .name = "Bob", .associatedUserId = "bob", .favorite = true};
  await(ann->userContacts()->add(contact));
  contact.name = "Robert";
  await(ann->userContacts()->update(contact));
  await(ann->userContacts()->deleteContact(contact));

  const auto isContact = [](const AddressBookSocketDTO& e) {
    return e.contact && e.contact->id == "c1" && e.type == AddressBookType::contacts;
  };
  EXPECT_TRUE(created.waitFor(isContact));
  EXPECT_TRUE(updated.waitFor(isContact));
  EXPECT_TRUE(deleted.waitFor(isContact));
}

TEST_F(DomainsIntegrationTest, PresenceChangesReachTheSubscribers) {
  auto ann = signIn("ann");
  auto bob = signIn("bob");
  StreamRecorder changes(bob->presenceEventHandler()->presenceUpdated());
  untilListening();

  const auto first = await(bob->presencesService()->subscribe(std::string("kel-user:ann")));
  EXPECT_FALSE(first.fromCache);
  EXPECT_EQ(std::optional<std::string>("kel-user:ann"), first.presence.address);
  EXPECT_TRUE(await(bob->presencesService()->subscribe(std::string("kel-user:ann"))).fromCache);

  const auto mine = await(ann->presencesService()->update(
      {.address = "kel-user:ann", .online = true, .activity = "busy", .note = "at lunch"}));
  EXPECT_EQ(std::optional<std::string>("busy"), mine.activity);
  EXPECT_TRUE(changes.waitFor([](const PresenceDTO& p) { return p.note == "at lunch"; }));
  // Only the user changes their own presence.
  EXPECT_THROW(await(bob->presencesService()->update({.address = "kel-user:ann"})),
               ConnectionError);
}

TEST_F(DomainsIntegrationTest, GroupChangesReachTheParticipants) {
  auto ann = signIn("ann");
  auto bob = signIn("bob");
  const auto& events = *bob->groupEventHandler();
  StreamRecorder added(events.newGroup());
  StreamRecorder updated(events.groupUpdated());
  StreamRecorder deleted(events.groupDeleted());
  untilListening();
  auto groups = ann->groupService();

  const auto group =
      await(groups->createGroup("Support", std::string("support")).take(1).asSingle());
  EXPECT_EQ("ann", group.owner.userId);
  await(groups->add("bob", "support"));
  await(groups->add("ann", "support"));
  await(groups->reorderParticipants("support", {"bob", "ann"}));
  await(groups->changeRingingStrategy("support", SequentialRingingStrategyDTO{10, 2}));
  EXPECT_TRUE(added.waitFor([](const GroupDTO& g) { return g.groupId == "support"; }));
  EXPECT_TRUE(updated.waitFor([](const GroupDTO& g) {
    return g.participants == std::vector<std::string>{"bob", "ann"} &&
           g.ringingStrategy == RingingStrategyDTO(SequentialRingingStrategyDTO{10, 2});
  }));
  await(groups->deleteGroup("support"));
  EXPECT_TRUE(deleted.waitFor([](const std::string& id) { return id == "support"; }));
}

TEST_F(DomainsIntegrationTest, MeetingsReachTheInvitedUsers) {
  auto ann = signIn("ann");
  auto bob = signIn("bob");
  const auto& events = *bob->meetingsEventHandler();
  StreamRecorder created(events.newMeeting());
  StreamRecorder updated(events.meetingUpdated());
  StreamRecorder deleted(events.meetingDeleted());
  untilListening();
  auto meetings = ann->meetingsService();

  const auto since = std::chrono::system_clock::now();
  MeetingInvitation invitation("Board", {{.email = "bob@emulator.kel"}}, "en", since,
                               since + std::chrono::hours(1), std::nullopt, true, false);
  const auto meeting = await(meetings->createMeeting(invitation));
  EXPECT_EQ("ann", meeting.user.userId);
  ASSERT_EQ(2u, meeting.participants.size());  // the owner first
  EXPECT_EQ(std::optional<std::string>("bob@emulator.kel"), meeting.participants[1].email);
  EXPECT_TRUE(meeting.isPasswordProtected);
  EXPECT_TRUE(created.waitFor([&](const Meeting& m) { return m.id == meeting.id; }));

  invitation.name = "Board, moved";
  invitation.sendInvites = true;
  EXPECT_EQ("Board, moved", await(meetings->updateMeeting(meeting.id, invitation)).name);
  EXPECT_TRUE(updated.waitFor([](const Meeting& m) { return m.name == "Board, moved"; }));
  await(meetings->deleteMeeting(meeting));
  EXPECT_TRUE(deleted.waitFor([](const rx::Unit&) { return true; }));
}

TEST_F(DomainsIntegrationTest, AMissedCallReachesBothHistoriesAndTheCalleesMissedCalls) {
  auto ann = signIn("ann");
  auto bob = signIn("bob");
  StreamRecorder annEntries(ann->conferenceLogEventHandler()->newConferenceEntry());
  StreamRecorder bobEntries(bob->conferenceLogEventHandler()->newConferenceEntry());
  StreamRecorder missed(bob->missedCallsEventHandler()->newMissedCalls());
  untilListening();

  emulator_.placeCall({.from = "ann", .to = "bob", .outcome = emulator::CallOutcome::missed});
  const auto isTheCall = [](const ConferenceEntry& e) { return e.invites.size() == 1; };
  EXPECT_TRUE(annEntries.waitFor(isTheCall));
  EXPECT_TRUE(bobEntries.waitFor(isTheCall));
  EXPECT_TRUE(missed.waitFor([](const MissedCallsSocketDTO& m) { return m.items->size() == 1; }));
  EXPECT_EQ(ConferenceEntry::CallState::timeout, bobEntries.values().back().invites.at(0).state);
}

TEST_F(DomainsIntegrationTest, AnAlertRaisedByOneIsAcceptedByAnother) {
  emulator_.alerts().addTemplate({{"templateId", "fire"}, {"title", "Fire"}, {"payload", "Leave"}});
  auto ann = signIn("ann");
  auto bob = signIn("bob");
  StreamRecorder raised(bob->alertsEventHandler()->newAlert());
  StreamRecorder resolved(ann->alertsEventHandler()->updatedAlert());
  untilListening();

  const auto templates = await(ann->alerts()->alertTemplates());
  ASSERT_EQ(1u, templates.size());
  await(ann->alerts()->sendAlert(templates[0]));
  ASSERT_TRUE(raised.waitFor([](const ServerAlert& a) { return a.title == "Fire"; }));
  const auto id = raised.values().back().alertId;
  await(bob->alerts()->accept(id));
  EXPECT_TRUE(resolved.waitFor(
      [&](const ServerAlert& a) { return a.alertId == id && a.acceptedBy == "bob"; }));
}

TEST_F(DomainsIntegrationTest, ChatListChangesReachTheUsersOtherSessions) {
  auto ann = signIn("ann");
  auto annElsewhere = signIn("ann");
  StreamRecorder added(annElsewhere->individualChatListEventHandler()->newIndividualChat());
  StreamRecorder removed(annElsewhere->individualChatListEventHandler()->deleteIndividualChat());
  untilListening();
  auto chats = ann->xmppService();

  await(chats->addOneToOneChat("bob@emulator.kel"));
  await(chats->deleteOneToOneChat("bob@emulator.kel"));
  const auto isBob = [](const IndividualChatListSocketDTO& c) {
    return c.jid == "bob@emulator.kel";
  };
  EXPECT_TRUE(added.waitFor(isBob));
  EXPECT_TRUE(removed.waitFor(isBob));
}

}  // namespace
}  // namespace kel
