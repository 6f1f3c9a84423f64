#include "ServerClient/Socket/Events/DomainEvent.h"

#include "ServerClient/Common/RawValues.h"

namespace kel {

namespace {

constexpr RawValues<DomainEvent, 10> kRawValues{
    {"/addressbooks", "/conferences", "/presence", "/usersGroup", "/usersGroup/participant",
     "/alerts", "/missedCalls", "/meetings", "/xmpp/individualChatList", "unkwown"}};

constexpr std::array<DomainEvent, 10> kAll{
    DomainEvent::addressBooks, DomainEvent::conferences,        DomainEvent::presence,
    DomainEvent::group,        DomainEvent::participantInGroup, DomainEvent::alerts,
    DomainEvent::missedCalls,  DomainEvent::meetings,           DomainEvent::xmppIndividualChatList,
    DomainEvent::unkwown};

}  // namespace

const std::array<DomainEvent, 10>& allDomainEvents() noexcept {
  return kAll;
}

std::string_view rawValue(DomainEvent domain) noexcept {
  return kRawValues.text(domain);
}

std::optional<DomainEvent> domainEventFrom(std::string_view raw) noexcept {
  return kRawValues.find(raw);
}

DomainEvent parseDomain(std::optional<std::string_view> path) noexcept {
  // Dropping the last "/"-separated piece until a raw value matches. Pieces are cut at every
  // "/", so "a//b" first becomes "a/" and then "a".
  std::string_view rest = path.value_or(std::string_view{});
  while (!rest.empty()) {
    if (auto domain = domainEventFrom(rest)) return *domain;
    auto slash = rest.rfind('/');
    if (slash == std::string_view::npos) break;
    rest = rest.substr(0, slash);
  }
  return DomainEvent::unkwown;
}

std::pair<DomainEvent, std::optional<std::string>> domainAndParamFor(std::string_view pathname) {
  DomainEvent domain = parseDomain(pathname);
  std::string_view last;
  std::string_view rest = pathname;
  while (!rest.empty()) {
    auto slash = rest.rfind('/');
    std::string_view piece = slash == std::string_view::npos ? rest : rest.substr(slash + 1);
    if (!piece.empty()) {
      last = piece;
      break;
    }
    rest = rest.substr(0, slash);
  }
  if (last.empty() || rawValue(domain).find(last) != std::string_view::npos) {
    return {domain, std::nullopt};
  }
  return {domain, std::string(last)};
}

}  // namespace kel
