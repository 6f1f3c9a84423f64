#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kel {

/// The domain a server event concerns, named by the leading path of the resource it is about.
/// `unkwown` keeps the server protocol's historical spelling in its name and raw value.
enum class DomainEvent {
  addressBooks,            ///< "/addressbooks"
  conferences,             ///< "/conferences"
  presence,                ///< "/presence"
  group,                   ///< "/usersGroup"
  participantInGroup,      ///< "/usersGroup/participant"
  alerts,                  ///< "/alerts"
  missedCalls,             ///< "/missedCalls"
  meetings,                ///< "/meetings"
  xmppIndividualChatList,  ///< "/xmpp/individualChatList"
  unkwown,                 ///< "unkwown"
};

/// Every case, in declaration order.
const std::array<DomainEvent, 10>& allDomainEvents() noexcept;

/// The case's raw value, e.g. "/usersGroup/participant".
std::string_view rawValue(DomainEvent domain) noexcept;

/// The case whose raw value is exactly `raw`.
std::optional<DomainEvent> domainEventFrom(std::string_view raw) noexcept;

/// The domain of the longest leading part of `path` (cut at "/" boundaries) that is a domain's
/// raw value; `unkwown` when there is none or the path is absent or empty.
DomainEvent parseDomain(std::optional<std::string_view> path) noexcept;

/// The domain of `pathname` and the identifier its last non-empty piece carries. The last piece
/// is no identifier when the domain's raw value contains it as a substring: "/alerts/a" carries
/// none, because "a" occurs in "/alerts".
std::pair<DomainEvent, std::optional<std::string>> domainAndParamFor(std::string_view pathname);

}  // namespace kel
