// Each domain's events through the facade, the real WebSocket and the emulator to another
// session's handlers. KelCliTest runs the demo, which waits for the first event of presence,
// groups, contacts, meetings and alerts to arrive this way, and every command against the
// emulator; these follow the events the demo does not wait for.

#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include <boost/url/parse.hpp>

#include "ServerClient/AddressBooks/Event/AddressBooksEventHandler.h"
#include "ServerClient/Client/KelServer.h"
#include "ServerClient/ConferenceLog/Event/ConferenceLogEventHandler.h"
#include "ServerClient/ConferenceLog/Service/ConferenceLogService.h"
#include "ServerClient/Contact/Service/UserContactsService.h"
#include "ServerClient/Group/Event/GroupEventHandler.h"
#include "ServerClient/Group/Service/GroupService.h"
#include "ServerClient/Meeting/Event/MeetingsEventHandler.h"
#include "ServerClient/Meeting/Service/MeetingsService.h"
#include "ServerClient/MissedCalls/Event/MissedCallsEventHandler.h"
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

TEST_F(DomainsIntegrationTest, ContactAndChatChangesReachTheUsersOtherSessions) {
  auto ann = signIn("ann");
  auto annElsewhere = signIn("ann");
  const auto& books = *annElsewhere->addressBooksEventHandler();
  const auto& chats = *annElsewhere->individualChatListEventHandler();
  StreamRecorder created(books.newContact());
  StreamRecorder updated(books.contactUpdated());
  StreamRecorder deleted(books.contactDeleted());
  StreamRecorder chatAdded(chats.newIndividualChat());
  StreamRecorder chatRemoved(chats.deleteIndividualChat());
  untilListening();

  Contact contact{.id = "c1", .name = "Bob", .associatedUserId = "bob", .favorite = true};
  await(ann->userContacts()->add(contact));
  contact.name = "Robert";
  await(ann->userContacts()->update(contact));
  await(ann->userContacts()->deleteContact(contact));
  await(ann->xmppService()->addOneToOneChat("bob@emulator.kel"));
  await(ann->xmppService()->deleteOneToOneChat("bob@emulator.kel"));

  const auto isContact = [](const AddressBookSocketDTO& e) {
    return e.contact && e.contact->id == "c1" && e.type == AddressBookType::contacts;
  };
  EXPECT_TRUE(created.waitFor(isContact));
  EXPECT_TRUE(updated.waitFor(
      [](const AddressBookSocketDTO& e) { return e.contact && e.contact->name == "Robert"; }));
  EXPECT_TRUE(deleted.waitFor(isContact));
  const auto isBob = [](const IndividualChatListSocketDTO& c) {
    return c.jid == "bob@emulator.kel";
  };
  EXPECT_TRUE(chatAdded.waitFor(isBob));
  EXPECT_TRUE(chatRemoved.waitFor(isBob));
}

TEST_F(DomainsIntegrationTest, GroupMeetingAndCallEventsReachTheOtherUser) {
  auto ann = signIn("ann");
  auto bob = signIn("bob");
  const auto& meetingEvents = *bob->meetingsEventHandler();
  StreamRecorder groupAdded(bob->groupEventHandler()->newGroup());
  StreamRecorder groupDeleted(bob->groupEventHandler()->groupDeleted());
  StreamRecorder meetingUpdated(meetingEvents.meetingUpdated());
  StreamRecorder meetingDeleted(meetingEvents.meetingDeleted());
  StreamRecorder annEntries(ann->conferenceLogEventHandler()->newConferenceEntry());
  StreamRecorder bobEntries(bob->conferenceLogEventHandler()->newConferenceEntry());
  StreamRecorder missed(bob->missedCallsEventHandler()->newMissedCalls());
  untilListening();

  auto groups = ann->groupService();
  await(groups->createGroup("Support", std::string("support")).take(1).asSingle());
  await(groups->add("bob", "support"));
  EXPECT_TRUE(groupAdded.waitFor([](const GroupDTO& g) { return g.groupId == "support"; }));
  await(groups->deleteGroup("support"));
  EXPECT_TRUE(groupDeleted.waitFor([](const std::string& id) { return id == "support"; }));

  auto meetings = ann->meetingsService();
  const auto since = std::chrono::system_clock::now();
  MeetingInvitation invitation("Board", {{.email = "bob@emulator.kel"}}, "en", since,
                               since + std::chrono::hours(1), std::nullopt, true, false);
  const auto meeting = await(meetings->createMeeting(invitation));
  EXPECT_TRUE(meeting.isPasswordProtected);
  invitation.name = "Board, moved";
  invitation.sendInvites = true;
  await(meetings->updateMeeting(meeting.id, invitation));
  EXPECT_TRUE(meetingUpdated.waitFor([](const Meeting& m) { return m.name == "Board, moved"; }));
  await(meetings->deleteMeeting(meeting));
  EXPECT_TRUE(meetingDeleted.waitFor([](const rx::Unit&) { return true; }));

  emulator_.placeCall({.from = "ann", .to = "bob", .outcome = emulator::CallOutcome::missed});
  const auto isTheCall = [](const ConferenceEntry& e) {
    return e.invites.size() == 1 && e.invites[0].state == ConferenceEntry::CallState::timeout;
  };
  EXPECT_TRUE(annEntries.waitFor(isTheCall));
  EXPECT_TRUE(bobEntries.waitFor(isTheCall));
  EXPECT_TRUE(missed.waitFor([](const MissedCallsSocketDTO& m) { return m.items->size() == 1; }));
}

}  // namespace
}  // namespace kel
