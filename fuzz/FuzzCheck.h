#pragma once

// What the fuzz targets share: a check that stops the run where a property fails (libFuzzer
// keeps the input), and the text of the input.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string_view>

#include "ServerClient/Common/SDKError.h"

namespace kel::fuzz {

inline void check(bool condition) {
  if (!condition) __builtin_trap();
}

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Whatever the input, a decoder fails only with the documented decoding error.
inline void checkDecodingError(const std::exception_ptr& error) {
  const auto* generic = errorAs<GenericError>(error);
  check(generic != nullptr && generic->type().kind() == GenericErrorType::Kind::decoding);
}

}  // namespace kel::fuzz
