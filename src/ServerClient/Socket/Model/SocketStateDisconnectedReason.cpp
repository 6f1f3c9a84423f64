#include "ServerClient/Socket/Model/SocketStateDisconnectedReason.h"

namespace kel {

std::string_view name(SocketStateDisconnectedReason reason) noexcept {
  switch (reason) {
    case SocketStateDisconnectedReason::expectedClose:
      return "expectedClose";
    case SocketStateDisconnectedReason::lostConnection:
      return "lostConnection";
    case SocketStateDisconnectedReason::background:
      return "background";
  }
  return "unknown";
}

}  // namespace kel
