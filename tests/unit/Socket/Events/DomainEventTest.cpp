#include "ServerClient/Socket/Events/DomainEvent.h"

#include <gtest/gtest.h>

namespace kel {
namespace {

TEST(DomainEvent, TheLongestKnownLeadingPathAndTheLastPieceUnlessTheDomainNameContainsIt) {
  struct Case {
    std::string_view path;
    DomainEvent domain;
    std::optional<std::string> param;
  };
  for (const auto& [path, domain, param] : {
           Case{"/usersGroup/participant/42", DomainEvent::participantInGroup, "42"},
           Case{"/usersGroup/participant", DomainEvent::participantInGroup, std::nullopt},
           Case{"/usersGroup/7/participants/9", DomainEvent::group, "9"},
           Case{"/xmpp/individualChatList/x", DomainEvent::xmppIndividualChatList, std::nullopt},
           Case{"/presence//", DomainEvent::presence, std::nullopt},
           Case{"/alerts/a", DomainEvent::alerts, std::nullopt},  // "a" occurs in "/alerts"
           Case{"/alerts/b1/", DomainEvent::alerts, "b1"},
           Case{"/other/1", DomainEvent::unkwown, "1"},
           Case{"presence", DomainEvent::unkwown, "presence"},
           Case{"unkwown/3", DomainEvent::unkwown, "3"},  // the sentinel is a key like any other
           Case{"", DomainEvent::unkwown, std::nullopt},
       }) {
    EXPECT_EQ(std::pair(domain, param), domainAndParamFor(path)) << path;
    EXPECT_EQ(domain, parseDomain(path)) << path;
  }
  EXPECT_EQ(DomainEvent::unkwown, parseDomain(std::nullopt));
}

}  // namespace
}  // namespace kel
