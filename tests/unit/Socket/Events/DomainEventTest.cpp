#include "ServerClient/Socket/Events/DomainEvent.h"

#include <gtest/gtest.h>

namespace kel {
namespace {

using Param = std::optional<std::string>;

TEST(DomainEvent, RawValuesRoundTripInDeclarationOrder) {
  const auto& all = allDomainEvents();
  ASSERT_EQ(10u, all.size());
  EXPECT_EQ(DomainEvent::addressBooks, all.front());
  EXPECT_EQ("unkwown", rawValue(all.back()));
  for (auto domain : all) EXPECT_EQ(domain, domainEventFrom(rawValue(domain)));
  EXPECT_FALSE(domainEventFrom("/Presence"));
}

TEST(DomainEvent, ParseDomainTakesTheLongestKnownLeadingPath) {
  EXPECT_EQ(DomainEvent::participantInGroup, parseDomain("/usersGroup/participant/42"));
  EXPECT_EQ(DomainEvent::group, parseDomain("/usersGroup/7/participants/9"));
  EXPECT_EQ(DomainEvent::xmppIndividualChatList, parseDomain("/xmpp/individualChatList/x"));
  EXPECT_EQ(DomainEvent::presence, parseDomain("/presence//"));
  EXPECT_EQ(DomainEvent::unkwown, parseDomain("/xmpp"));
  EXPECT_EQ(DomainEvent::unkwown, parseDomain("presence"));
  EXPECT_EQ(DomainEvent::unkwown, parseDomain(""));
  EXPECT_EQ(DomainEvent::unkwown, parseDomain(std::nullopt));
  EXPECT_EQ(DomainEvent::unkwown, parseDomain("/"));
  // The sentinel's raw value is a key like any other.
  EXPECT_EQ(DomainEvent::unkwown, parseDomain("unkwown/3"));
}

TEST(DomainEvent, ParamIsTheLastPieceUnlessTheDomainNameContainsIt) {
  using P = std::pair<DomainEvent, Param>;
  EXPECT_EQ(P(DomainEvent::participantInGroup, "42"),
            domainAndParamFor("/usersGroup/participant/42"));
  EXPECT_EQ(P(DomainEvent::participantInGroup, std::nullopt),
            domainAndParamFor("/usersGroup/participant"));
  EXPECT_EQ(P(DomainEvent::group, "7"), domainAndParamFor("/usersGroup/7"));
  EXPECT_EQ(P(DomainEvent::presence, std::nullopt), domainAndParamFor("/presence"));
  EXPECT_EQ(P(DomainEvent::unkwown, "1"), domainAndParamFor("/other/1"));
  EXPECT_EQ(P(DomainEvent::alerts, std::nullopt), domainAndParamFor("/alerts/a"));
  EXPECT_EQ(P(DomainEvent::alerts, "b1"), domainAndParamFor("/alerts/b1/"));
  EXPECT_EQ(P(DomainEvent::unkwown, std::nullopt), domainAndParamFor("///"));
  EXPECT_EQ(P(DomainEvent::unkwown, std::nullopt), domainAndParamFor(""));
}

}  // namespace
}  // namespace kel
