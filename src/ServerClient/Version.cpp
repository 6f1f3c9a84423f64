#include "ServerClient/Version.h"

namespace kel {

const char* libraryVersion() noexcept {
  return "0.1.0";
}

}  // namespace kel
