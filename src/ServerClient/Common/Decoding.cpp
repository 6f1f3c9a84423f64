#include "ServerClient/Common/Decoding.h"

namespace kel::detail {

void throwDecodingError(std::string_view data, std::string reason) {
  throw GenericError(GenericErrorType::decoding(utf8TextOrEmpty(data)), std::move(reason));
}

}  // namespace kel::detail
