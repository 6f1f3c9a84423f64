#pragma once

#include <array>
#include <string_view>

namespace kel {

/// The server domains that the service provider hands out services for, in a fixed order.
/// Known to the rest of the library as ServiceProvider::Domain.
enum class ServiceDomain {
  authorization,   ///< sign-in, permissions and sign-out (AuthService)
  presence,        ///< presence, cached; needs the "presence" capability
  conferenceLog,   ///< the call history; needs the "call-history" capability
  missedCalls,     ///< missed calls
  fileSharing,     ///< no service: always refused by the provider
  groups,          ///< groups, cached
  keepConnection,  ///< session renewal (KeepConnectionService)
  push,            ///< push-token registration
  meetings,        ///< meetings
  user,            ///< server users and capabilities
  xmpp,            ///< the chat list
  addressBooks,    ///< address books, cached
  userContacts,    ///< the user's own contacts
  alerts,          ///< alerts
};

/// Every domain, in declaration order.
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
