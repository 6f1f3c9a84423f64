#include "ServerClient/Client/ServiceProvider.h"

#include <utility>

#include "ServerClient/AddressBooks/Service/KelCacheAddressBooksService.h"
#include "ServerClient/Alert/Service/KelAlertsService.h"
#include "ServerClient/ConferenceLog/Service/KelConferenceLogService.h"
#include "ServerClient/Contact/Service/KelUserContactsService.h"
#include "ServerClient/Group/Service/KelCacheGroupService.h"
#include "ServerClient/KeepConnection/KeepConnectionService.h"
#include "ServerClient/Meeting/Service/KelMeetingsService.h"
#include "ServerClient/MissedCalls/Service/KelMissedCallsService.h"
#include "ServerClient/Presence/Service/KelCachePresencesService.h"
#include "ServerClient/Push/KelPushService.h"
#include "ServerClient/User/KelUserService.h"
#include "ServerClient/XMPP/Service/KelXMPPService.h"

namespace kel {

namespace {

template <class S>
ServiceProvider::Factory factoryOf() {
  return [](SocketClientSlot slot) { return std::make_shared<S>(std::move(slot)); };
}

/// The label carried by the refusal, which differs from the capability looked for.
std::string_view refusalLabel(ServiceDomain domain) {
  return domain == ServiceDomain::presence ? "presence" : "+call-history";
}

}  // namespace

std::string ServiceProvider::Dependencies::description() const {
  struct Visitor {
    std::string operator()(const Rest& rest) const {
      return "rest(serverUrl: " + std::string(rest.serverUrl.buffer()) + ")";
    }
    std::string operator()(const Socket& socket) const {
      return std::string("socket(client: BehaviorRelay(value: ") +
             (socket.client.value() ? "SocketClient" : "nil") + "))";
    }
    std::string operator()(const File&) const { return "file"; }
  };
  return std::visit(Visitor{}, value_);
}

std::map<ServiceProvider::Domain, ServiceProvider::Factory> ServiceProvider::defaultFactories() {
  return {
      {Domain::addressBooks, factoryOf<KelCacheAddressBooksService>()},
      {Domain::alerts, factoryOf<KelAlertsService>()},
      {Domain::conferenceLog, factoryOf<KelConferenceLogService>()},
      {Domain::groups, factoryOf<KelCacheGroupService>()},
      {Domain::keepConnection, factoryOf<KeepConnectionService>()},
      {Domain::meetings, factoryOf<KelMeetingsService>()},
      {Domain::missedCalls, factoryOf<KelMissedCallsService>()},
      {Domain::presence, factoryOf<KelCachePresencesService>()},
      {Domain::push, factoryOf<KelPushService>()},
      {Domain::user, factoryOf<KelUserService>()},
      {Domain::userContacts, factoryOf<KelUserContactsService>()},
      {Domain::xmpp, factoryOf<KelXMPPService>()},
  };
}

ServiceProvider::ServiceProvider(std::shared_ptr<const CapabilityValidator> validator)
    : validator_(validator ? std::move(validator) : std::make_shared<CapabilityValidator>()),
      factories_(defaultFactories()) {}

void ServiceProvider::registerFactory(Domain domain, Factory factory) {
  std::lock_guard lock(mutex_);
  if (factory) {
    factories_[domain] = std::move(factory);
  } else {
    factories_.erase(domain);
  }
}

GenericError ServiceProvider::serviceNotFound() {
  return GenericError(GenericErrorType::underlying(), "Service not found");
}

std::shared_ptr<SocketService> ServiceProvider::createService(Domain domain,
                                                              const Dependencies& dependencies) {
  const auto* slot = dependencies.socketClient();
  const auto index = static_cast<std::size_t>(domain);
  if (domain == Domain::fileSharing || !slot || index >= services_.size()) {
    throw GenericError(GenericErrorType::underlying(),
                       "Invalid domain or dependencies: " + std::string(rawValue(domain)) + " " +
                           dependencies.description());
  }
  if ((domain == Domain::presence || domain == Domain::conferenceLog) &&
      !validator_->hasPermission(domain)) {
    throw GenericError(GenericErrorType::notAllowed(std::string(refusalLabel(domain))));
  }

  std::lock_guard lock(mutex_);
  if (services_[index]) return services_[index];
  const auto factory = factories_.find(domain);
  if (factory == factories_.end()) throw serviceNotFound();
  auto service = factory->second(*slot);
  if (!service) throw serviceNotFound();
  services_[index] = service;
  return service;
}

std::shared_ptr<SocketService> ServiceProvider::cachedService(Domain domain) const {
  const auto index = static_cast<std::size_t>(domain);
  std::lock_guard lock(mutex_);
  return index < services_.size() ? services_[index] : nullptr;
}

}  // namespace kel
