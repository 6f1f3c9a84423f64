#include <gtest/gtest.h>

#include "ServerClient/XMPP/Service/KelXMPPService.h"
#include "ServerClient/rx/Errors.h"
#include "ServerClient/rx/TestScheduler.h"
#include "support/OperationTable.h"

namespace kel {
namespace {

using namespace testing::tables;
using testing::StreamRecorder;

/// The service with the wait timed in virtual time.
struct VirtualXMPPService : KelXMPPService {
  explicit VirtualXMPPService(SocketClientSlot slot)
      : KelXMPPService(std::move(slot), std::make_shared<rx::TestScheduler>()) {}
};

TEST(XMPPService, EachOperationWritesItsFrameAndReadsOnlyListsOfTexts) {
  const auto list = [](auto& s) { return outcome(s.oneToOneChatList()); };
  const auto get = frame("GET", "/xmpp/individualChatList");
  testing::runOperationTable<VirtualXMPPService>({
      {"list", list, get, Reply::withBody({{"chats", {"a@d", "b@d"}}, {"other", json::array()}}),
       json::array({"a@d", "b@d"})},
      {"list without chats", list, get, Reply::withBody(json::object()), json::array()},
      {"list with a number", list, get, Reply::withBody({{"chats", {"a@d", 1}}}), kUndecodable},
      {"list beside a text", list, get, Reply::withBody({{"chats", {"a@d"}}, {"note", "x"}}),
       kUndecodable},
      {"list as a list", list, get, Reply::withBody({"a@d"}), kUndecodable},
      {"list not JSON", list, get, Reply::withBody("a text body leaves no data"),
       json{{"error", "generic/underlying"}}},
      {"add", [](auto& s) { return outcome(s.addOneToOneChat("a b@d/r")); },
       frame("PUT", "/xmpp/individualChatList/a b@d/r"), Reply::withBody({{"x", 1}}), "completed"},
      {"delete", [](auto& s) { return outcome(s.deleteOneToOneChat("a@d")); },
       frame("DELETE", "/xmpp/individualChatList/a@d"), Reply::withBody(json::object()),
       "completed"},
  });
}

TEST(XMPPService, WaitsTenSecondsForAnAuthenticatedSocketBeforeSending) {
  auto scheduler = std::make_shared<rx::TestScheduler>();
  auto client = std::make_shared<FakeSocketClient>(
      SocketState::disconnected(SocketStateDisconnectedReason::lostConnection));
  SocketClientSlot slot{client};
  auto service = std::make_shared<KelXMPPService>(slot, scheduler);

  // Authenticated within the wait: sent then, answered as usual.
  StreamRecorder<std::vector<std::string>> list(service->oneToOneChatList().asObservable());
  scheduler->advanceBy(std::chrono::milliseconds(9999));
  client->setState(SocketState::connected());
  EXPECT_TRUE(client->requests().empty());
  client->setState(SocketState::authenticated());
  ASSERT_EQ(1u, client->requests().size());
  client->respond(client->lastRequest()["id"].get<std::int64_t>(), {{"chats", {"a@d"}}});
  EXPECT_EQ(std::vector<std::vector<std::string>>{{"a@d"}}, list.values());

  // Not within the wait: the reactive time-out, nothing sent.
  client->setState(SocketState::connected());
  StreamRecorder<rx::Unit> added(service->addOneToOneChat("b@d").asObservable());
  scheduler->advanceBy(std::chrono::seconds(10));
  ASSERT_TRUE(added.error());
  EXPECT_THROW(std::rethrow_exception(added.error()), rx::TimeoutError);
  EXPECT_EQ(1u, client->requests().size());

  // No client at all.
  slot.accept(nullptr);
  StreamRecorder<rx::Unit> deleted(service->deleteOneToOneChat("b@d").asObservable());
  EXPECT_EQ("connection/noSocketClient", errorKind(deleted.error()));
}

}  // namespace
}  // namespace kel
