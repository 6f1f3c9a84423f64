#pragma once

#include <array>
#include <string_view>

namespace kel {

/// The server domains that the service provider hands out services for, in a fixed order.
/// Known to the rest of the library as ServiceProvider::Domain.
enum class ServiceDomain {
  authorization,
  presence,
  conferenceLog,
  missedCalls,
  fileSharing,
  groups,
  keepConnection,
  push,
  meetings,
  user,
  xmpp,
  addressBooks,
  userContacts,
  alerts,
};

inline constexpr std::array<ServiceDomain, 14> kAllServiceDomains = {
    ServiceDomain::authorization,  ServiceDomain::presence,    ServiceDomain::conferenceLog,
    ServiceDomain::missedCalls,    ServiceDomain::fileSharing, ServiceDomain::groups,
    ServiceDomain::keepConnection, ServiceDomain::push,        ServiceDomain::meetings,
    ServiceDomain::user,           ServiceDomain::xmpp,        ServiceDomain::addressBooks,
    ServiceDomain::userContacts,   ServiceDomain::alerts,
};

/// The case's name, e.g. "conferenceLog"; the empty text for a value outside the enumeration.
std::string_view rawValue(ServiceDomain domain) noexcept;

}  // namespace kel
