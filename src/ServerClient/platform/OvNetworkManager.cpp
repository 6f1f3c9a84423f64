#include "ServerClient/platform/OvNetworkManager.h"

namespace kel::platform {

std::string_view name(OvNetworkStatus status) noexcept {
  switch (status) {
    case OvNetworkStatus::unknown:
      return "unknown";
    case OvNetworkStatus::notReachable:
      return "notReachable";
    case OvNetworkStatus::reachable:
      return "reachable";
  }
  return "unknown";
}

}  // namespace kel::platform
