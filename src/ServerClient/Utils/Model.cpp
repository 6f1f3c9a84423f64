#include "ServerClient/Utils/Model.h"

#include <string>

#include "ServerClient/Common/Json.h"
#include "ServerClient/Log/ServerLog.h"

namespace kel::detail {

void failModelDecoding(std::string_view data, std::string_view reason) {
  auto& log = ServerLog::sharedInstance();
  if (log.admits(LogFlag::error)) {
    // A fixed source name: every model decoding failure reads as coming from one place.
    log.error("Decode error: " + std::string(reason), "ServerClient/Sources/Utils/Model",
              "from(data:)", __LINE__);
  }
  throw GenericError(GenericErrorType::decoding(utf8TextOrEmpty(data)));
}

}  // namespace kel::detail
