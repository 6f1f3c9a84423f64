#include "ServerClient/platform/ApplicationLifecycle.h"

namespace kel::platform {

const std::shared_ptr<ApplicationLifecycle>& ApplicationLifecycle::shared() {
  static const auto instance = std::make_shared<ApplicationLifecycle>();
  return instance;
}

}  // namespace kel::platform
