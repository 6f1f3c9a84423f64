#include "ServerClient/Client/CapabilityValidator.h"

#include <algorithm>
#include <utility>

namespace kel {

namespace {
std::shared_ptr<const Capabilities> orEmpty(std::shared_ptr<const Capabilities> capabilities) {
  if (capabilities) return capabilities;
  return std::make_shared<const Capabilities>(std::vector<std::string>{},
                                              std::vector<std::string>{});
}
}  // namespace

CapabilityValidator::CapabilityValidator() : CapabilityValidator(nullptr) {}

CapabilityValidator::CapabilityValidator(std::shared_ptr<const Capabilities> capabilities)
    : capabilities_(orEmpty(std::move(capabilities))) {}

std::shared_ptr<const Capabilities> CapabilityValidator::capabilities() const {
  std::lock_guard lock(mutex_);
  return capabilities_;
}

void CapabilityValidator::setCapabilities(std::shared_ptr<const Capabilities> capabilities) {
  auto record = orEmpty(std::move(capabilities));
  std::lock_guard lock(mutex_);
  capabilities_ = std::move(record);
}

std::optional<std::string_view> CapabilityValidator::requiredCapability(
    ServiceDomain domain) noexcept {
  switch (domain) {
    case ServiceDomain::presence:
      return "presence";
    case ServiceDomain::conferenceLog:
      return "call-history";
    case ServiceDomain::meetings:
      return "meetings";
    case ServiceDomain::userContacts:
      return "contacts";
    default:
      return std::nullopt;
  }
}

bool CapabilityValidator::hasPermission(ServiceDomain domain) const {
  const auto label = requiredCapability(domain);
  if (!label) return true;
  // The record is held for the whole lookup: a sign-in may replace it meanwhile.
  const auto held = capabilities();
  const auto& active = held->active();
  return std::find(active.begin(), active.end(), *label) != active.end();
}

}  // namespace kel
