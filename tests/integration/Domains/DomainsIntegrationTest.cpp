// Each domain through the facade, the real WebSocket and the emulator, ending with an event that
// reaches another session's handler.

#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include <boost/url/parse.hpp>

#include "ServerClient/AddressBooks/Event/AddressBooksEventHandler.h"
#include "ServerClient/AddressBooks/Service/AddressBooksService.h"
#include "ServerClient/Client/KelServer.h"
#include "ServerClient/Contact/Service/UserContactsService.h"
#include "ServerClient/Group/Event/GroupEventHandler.h"
#include "ServerClient/Group/Service/GroupService.h"
#include "ServerClient/Presence/Event/PresencesEventHandler.h"
#include "ServerClient/Presence/Service/PresencesService.h"
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
      account.capabilities = {{"domain", {"presence"}}, {"user", json::array()}};
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
    // Presence needs the capability that the sign-in brings.
    EXPECT_THROW(server->presencesService(), GenericError);
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
  const auto found = await(ann->addressBooks()->contact({"contacts"}, "bob"));
  ASSERT_TRUE(found.has_value());
  EXPECT_EQ("Robert", found->name);
  await(ann->userContacts()->deleteContact(contact));
  const auto books = await(ann->addressBooks()->addressBooks({"contacts"}, false));
  ASSERT_EQ(1u, books.size());
  ASSERT_TRUE(books[0].contacts.has_value());
  EXPECT_TRUE(books[0].contacts->empty());

  const auto isContact = [](const AddressBookSocketDTO& e) {
    return e.contact && e.contact->id == "c1" && e.type == AddressBookType::contacts;
  };
  EXPECT_TRUE(created.waitFor(isContact));
  EXPECT_TRUE(updated.waitFor(isContact));
  EXPECT_TRUE(deleted.waitFor(isContact));
  // A change the server refuses reaches the caller as its error.
  EXPECT_THROW(await(ann->userContacts()->update(Contact{.id = "nobody", .name = "X"})),
               ConnectionError);
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
  EXPECT_TRUE(await(groups->user("bob", "support")));
  EXPECT_FALSE(await(bob->groupService()->user("carol", "support")));
  const auto cached = await(groups->group("support", true));
  EXPECT_EQ((std::vector<std::string>{"bob", "ann"}), cached.participants);

  EXPECT_TRUE(added.waitFor([](const GroupDTO& g) { return g.groupId == "support"; }));
  EXPECT_TRUE(updated.waitFor([](const GroupDTO& g) {
    return g.participants == std::vector<std::string>{"bob", "ann"} &&
           g.ringingStrategy == RingingStrategyDTO(SequentialRingingStrategyDTO{10, 2});
  }));
  await(groups->deleteGroup("support"));
  EXPECT_TRUE(deleted.waitFor([](const std::string& id) { return id == "support"; }));
}

}  // namespace
}  // namespace kel
