// Feeds arbitrary bytes to the decoder of the sign-in answer, the first text the library takes
// from a server: it yields a record that keeps its promises or the decoding error, nothing else.

#include "FuzzCheck.h"
#include "ServerClient/Auth/Model/AuthenticationData.h"
#include "ServerClient/Common/Decoding.h"
#include "ServerClient/Utils/Description.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using kel::fuzz::check;
  const auto body = kel::fuzz::text(data, size);
  try {
    const auto decoded = kel::from<kel::AuthenticationData>(body);
    check(decoded.capabilities != nullptr);
    check(!decoded.permissions.has_value());
    // The session's instant, once written, reads back as the same text.
    const auto instant = kel::formatSessionDate(decoded.session.from);
    const auto again = kel::parseSessionDate(instant);
    check(again.has_value() && kel::formatSessionDate(*again) == instant);
    (void)kel::description(decoded);
  } catch (...) {
    kel::fuzz::checkDecodingError(std::current_exception());
  }
  return 0;
}
