#include "ServerClient/Client/ServiceDomain.h"

namespace kel {

std::string_view rawValue(ServiceDomain domain) noexcept {
  switch (domain) {
    case ServiceDomain::authorization:
      return "authorization";
    case ServiceDomain::presence:
      return "presence";
    case ServiceDomain::conferenceLog:
      return "conferenceLog";
    case ServiceDomain::missedCalls:
      return "missedCalls";
    case ServiceDomain::fileSharing:
      return "fileSharing";
    case ServiceDomain::groups:
      return "groups";
    case ServiceDomain::keepConnection:
      return "keepConnection";
    case ServiceDomain::push:
      return "push";
    case ServiceDomain::meetings:
      return "meetings";
    case ServiceDomain::user:
      return "user";
    case ServiceDomain::xmpp:
      return "xmpp";
    case ServiceDomain::addressBooks:
      return "addressBooks";
    case ServiceDomain::userContacts:
      return "userContacts";
    case ServiceDomain::alerts:
      return "alerts";
  }
  return {};
}

}  // namespace kel
